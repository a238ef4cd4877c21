// A reading handle on an open descriptor, shared by those who need the file to stay open. Reading through it
// moves the descriptor's file offset.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "foundation/error.hpp"
#include "foundation/value.hpp"
#include "platform/file_descriptor.hpp"

namespace qm {

// Raised by a handle that is used without a descriptor: a mistake of its holder, not a fault of the file.
class FileHandleOperationException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

class FileHandle {
 public:
  // With closeOnDealloc the handle owns the descriptor. It is closed when the last holder is gone, soon after
  // and on another thread: whoever that holder is need not wait for the file system. The user is the one of
  // closeElsewhere() (disposal.hpp).
  FileHandle(int descriptor, bool closeOnDealloc, std::optional<std::uint32_t> userID = std::nullopt);
  ~FileHandle();
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;

  // Null when the file cannot be opened.
  static std::shared_ptr<FileHandle> fileHandleForReadingAtPath(const std::string& path);

  int fileDescriptor() const { return descriptor_; }
  std::optional<std::uint32_t> userID() const { return userID_; }

  // Both raise FileHandleOperationException when the descriptor is negative.
  //
  // False with a Cocoa error (256, the POSIX error underneath) for pipes, sockets and closed descriptors.
  // Beyond the end is allowed.
  bool seekToOffset(std::uint64_t offset, ErrorPtr* error = nullptr);
  // Up to `length` bytes from the current position, fewer at the end of the file, none there. Nothing on
  // failure.
  std::optional<Data> readDataUpToLength(std::size_t length, ErrorPtr* error = nullptr);

  std::string description() const;

 private:
  int descriptor_;
  bool closeOnDealloc_;
  std::optional<std::uint32_t> userID_;
};

}  // namespace qm
