#include "platform/user.hpp"

#include <unistd.h>

namespace qm {

std::uint32_t currentUserID() {
  return ::getuid();
}

}  // namespace qm
