#include "platform/standard_descriptors.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace qm {

// From the lowest on: an open takes the lowest descriptor that is free.
void occupyClosedStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) != -1) continue;
    const int wrongDirection = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (::open("/dev/null", wrongDirection) != descriptor) std::abort();
  }
}

}  // namespace qm
