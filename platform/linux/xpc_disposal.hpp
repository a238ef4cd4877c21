// Closes what came from a peer and nobody takes, and what was sent to one, as platform/disposal.hpp does:
// close(2) of a socket with files in it that cannot be closed does not return either. Any thread.
#pragma once

#include <vector>

#include "platform/file_descriptor.hpp"
#include "platform/linux/xpc_object.hpp"

namespace qm::xpc {

void closeElsewhere(std::vector<FileDescriptor> descriptors);
// Its peer sees the end at once.
void closeSocketElsewhere(FileDescriptor socket);
// Descriptors and endpoints. Those that somebody else still holds stay open.
void releaseElsewhere(std::vector<XPCObject> attachments);

}  // namespace qm::xpc
