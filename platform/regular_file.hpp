// Opening files that somebody else named: only a regular file is ever opened for reading, so that no FIFO's
// data is eaten, no device is touched and no call waits for another program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/file_descriptor.hpp"

namespace qm {

enum class FileKind : std::uint8_t {
  regular,
  directory,
  symbolicLink,
  fifo,
  socket,
  characterDevice,
  blockDevice,
  other
};

// "regular file", "directory", "symbolic link", "named pipe", "socket", "character device", "block device",
// "special file".
const char* name(FileKind kind);

enum class SymbolicLinks : std::uint8_t {
  follow,
  refuse
};  // of the last component; those before are followed

struct OpenedFile {
  FileDescriptor descriptor;  // close-on-exec, for reading; empty when the file was not opened
  int errorNumber = 0;  // errno of the step that failed; 0 when opened, and when only the kind is in the way
  FileKind kind = FileKind::other;  // known unless the path itself could not be reached
  std::int64_t size = 0;            // bytes, of a regular file
};

// Looks at the file without opening its content first, and opens it for reading only when it is a regular
// one: what was looked at and what is opened are the same file, also when the path is changed in between.
OpenedFile openRegularFile(const std::string& path, SymbolicLinks links);

// All bytes of a regular file; symbolic links are followed. Nothing with errno set on failure: EFBIG when it is
// larger than so many bytes, EISDIR or EINVAL when it is something else.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t largestSize);

// The kind of what the path names; false with errno set when it cannot be reached.
[[nodiscard]] bool fileKind(const std::string& path, SymbolicLinks links, FileKind& kind);

// A new empty file without a place in any folder, for reading and writing; the name is for people only. Empty
// with errno set on failure.
FileDescriptor createAnonymousFile(const std::string& name);

}  // namespace qm
