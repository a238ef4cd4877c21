#include "platform/linux/xpc_disposal.hpp"

#include <sys/socket.h>

#include "platform/common/disposal_lanes.hpp"

namespace qm::xpc {

PassedDescriptor::~PassedDescriptor() {
  if (descriptor_) disposeElsewhere(std::pair(std::move(descriptor_), std::move(kept_)), userID_);
}

void closeSocketElsewhere(FileDescriptor socket, std::optional<std::uint32_t> userID) {
  if (!socket) return;
  ::shutdown(socket.get(), SHUT_RDWR);
  closeElsewhere(std::move(socket), userID);
}

}  // namespace qm::xpc
