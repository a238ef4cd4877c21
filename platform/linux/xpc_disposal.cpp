#include "platform/linux/xpc_disposal.hpp"

#include <sys/socket.h>

#include <utility>

#include "platform/common/disposal_lanes.hpp"
#include "platform/disposal.hpp"

namespace qm::xpc {

void closeElsewhere(std::vector<FileDescriptor> descriptors) {
  if (!descriptors.empty()) disposeElsewhere(std::move(descriptors));
}

void closeSocketElsewhere(FileDescriptor socket) {
  if (!socket) return;
  ::shutdown(socket.get(), SHUT_RDWR);
  qm::closeElsewhere(std::move(socket));
}

void releaseElsewhere(std::vector<XPCObject> attachments) {
  if (!attachments.empty()) disposeElsewhere(std::move(attachments));
}

}  // namespace qm::xpc
