#include "platform/file_descriptor.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace qm {

void FileDescriptor::reset(int descriptor) {
  // Taking over the descriptor it already owns would leave it holding a closed one.
  if (descriptor != kNone && descriptor == descriptor_) std::abort();
  if (descriptor_ != kNone) {
    const int savedErrno = errno;
    // Not repeated after EINTR: the system has released the descriptor by then, or another thread may have
    // it.
    ::close(descriptor_);
    errno = savedErrno;
  }
  descriptor_ = descriptor;
}

FileDescriptor FileDescriptor::duplicate() const {
  return FileDescriptor(::fcntl(descriptor_, F_DUPFD_CLOEXEC, 0));
}

}  // namespace qm
