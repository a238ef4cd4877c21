// Plain file access by path and descriptor. Functions that fail return what is said and leave errno set. A
// path is taken as it stands: paths of the product itself go through hostPath (platform/system_root.hpp)
// first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "foundation/error.hpp"
#include "platform/file_descriptor.hpp"

namespace qm {

struct FileStatus {
  std::int32_t device = 0;  // the device number, cut to 32 bits
  std::uint64_t inode = 0;
  std::int64_t size = 0;    // bytes
  std::uint32_t owner = 0;  // user id
  // Seconds since 1970, fractions dropped. Where the file system keeps no creation time it is the earliest of
  // the others.
  std::int64_t created = 0;
  std::int64_t accessed = 0;
  std::int64_t modified = 0;
  // Nanoseconds since 1970: the last change of the content or of anything said here but `accessed`. Unlike
  // `modified` nobody can set it. Ends at about the years 1677 and 2262.
  std::int64_t changedNanoseconds = 0;
  bool isRegularFile = false;
  bool isDirectory = false;
};

// Follows symbolic links.
[[nodiscard]] bool statPath(const char* path, FileStatus& status);
[[nodiscard]] bool statDescriptor(int descriptor, FileStatus& status);

// Close-on-exec, read-only; empty on failure. Never waits for a FIFO's writer.
FileDescriptor openForReading(const char* path);
// Reads at the position without moving the file offset; goes on after an interruption by a signal. Bytes
// read, 0 at the end, -1 on failure.
std::int64_t readAt(int descriptor, void* buffer, std::size_t size, std::int64_t position);
// The file can be read by this process (access(2), R_OK).
bool isReadableFile(const char* path);
bool fileExists(const char* path);

// The whole content as UTF-8 text, a leading byte-order mark dropped. On failure nothing and, through
// `error`, a Cocoa file-read error (260 missing, 257 no permission, 261 not UTF-8, 256 others).
std::optional<std::string> readTextFile(const std::string& path, ErrorPtr* error = nullptr);

// Extended attributes, symbolic links followed. With a null buffer the size that is needed; otherwise the
// size that was written; -1 on failure. The list is NUL-terminated names back to back, as the system reports
// them.
std::int64_t listExtendedAttributes(const char* path, char* names, std::size_t size);
std::int64_t listExtendedAttributes(int descriptor, char* names, std::size_t size);
std::int64_t getExtendedAttribute(const char* path, const char* name, void* value, std::size_t size);
std::int64_t getExtendedAttribute(int descriptor, const char* name, void* value, std::size_t size);

// The path of the program a process runs, without symbolic links, into the buffer (no NUL is added). The
// length, or 0 with errno set: ESRCH no such process, EACCES not allowed to look, ENOENT the program file is
// gone.
int processPath(std::int32_t pid, char* buffer, std::size_t size);

}  // namespace qm
