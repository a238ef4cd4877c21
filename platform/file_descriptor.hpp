// FileDescriptor owns one open descriptor and closes it. Everything that receives or opens a descriptor puts
// it into one at once.
#pragma once

#include <utility>

namespace qm {

class FileDescriptor {
 public:
  static constexpr int kNone = -1;

  FileDescriptor() = default;
  // Takes over the descriptor; kNone makes an empty one.
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, kNone)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~FileDescriptor() { reset(); }

  explicit operator bool() const { return descriptor_ != kNone; }
  int get() const { return descriptor_; }
  // Gives the descriptor away; the caller closes it.
  [[nodiscard]] int release() { return std::exchange(descriptor_, kNone); }
  // Closes the one held and takes over the other.
  void reset(int descriptor = kNone);

  // A close-on-exec duplicate that shares the file offset; empty with errno set when it could not be made.
  FileDescriptor duplicate() const;

 private:
  int descriptor_ = kNone;
};

}  // namespace qm
