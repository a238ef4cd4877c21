#include "platform/linux/xpc_disposal.hpp"

#include <sys/socket.h>

namespace qm::xpc {

void closeSocketElsewhere(FileDescriptor socket) {
  if (!socket) return;
  ::shutdown(socket.get(), SHUT_RDWR);
  closeElsewhere(std::move(socket));
}

}  // namespace qm::xpc
