// Letting go of files where nobody waits for it. close(2) of a file on a file system that does not answer
// does not return: whoever must not wait (a serial queue, the holder of a lock) has it done here, on queues
// of its own. Any thread.
#pragma once

#include "platform/file_descriptor.hpp"

namespace qm {

class XPCObject;

// Nothing happens for an empty one.
void closeElsewhere(FileDescriptor descriptor);
// A message with a descriptor in it, perhaps. What somebody else still holds stays.
void releaseElsewhere(XPCObject object);

}  // namespace qm
