// Closes what came from a peer and nobody takes, and what was sent to one. close(2) of a file on a file
// system that does not answer does not return, nor does that of a socket with such files in it: whoever must
// not wait (the event loop's thread, the holder of a lock) has it done here, on queues of its own. Any
// thread.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/file_descriptor.hpp"
#include "platform/linux/xpc_object.hpp"

namespace qm::xpc {

// How many closings can hang before the next has to wait for them.
inline constexpr std::size_t kClosingQueues = 4;
// Descriptors that may wait to be closed. Further ones are closed at once: with so many that wait for
// nothing, running out of descriptors would be worse.
inline constexpr std::size_t kMaximumClosingDescriptors = 1024;

void closeElsewhere(std::vector<FileDescriptor> descriptors);
// Its peer sees the end at once.
void closeSocketElsewhere(FileDescriptor socket);
// Descriptors and endpoints. Those that somebody else still holds stay open.
void releaseElsewhere(std::vector<XPCObject> attachments);

}  // namespace qm::xpc
