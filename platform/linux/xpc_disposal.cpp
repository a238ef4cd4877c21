#include "platform/linux/xpc_disposal.hpp"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include "platform/common/disposal_lanes.hpp"

namespace qm::xpc {
namespace {

// Of a stream socket that takes nothing more. Files travel with bytes.
bool isEmpty(int socket) {
  int unread = 0;
  return ::ioctl(socket, FIONREAD, &unread) == 0 && unread == 0;
}

}  // namespace

PassedDescriptor::~PassedDescriptor() {
  if (descriptor_) disposeElsewhere(std::pair(std::move(descriptor_), std::move(kept_)), userID_);
}

void closeSocketElsewhere(FileDescriptor socket, std::optional<std::uint32_t> userID) {
  if (!socket) return;
  ::shutdown(socket.get(), SHUT_RDWR);
  const bool mayHang = !isEmpty(socket.get());
  closeElsewhere(std::move(socket), mayHang ? userID : std::nullopt);
}

}  // namespace qm::xpc
