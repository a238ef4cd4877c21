// Letting go of files where nobody waits for it. close(2) of a file on a file system that does not answer
// does not return: whoever must not wait (a serial queue, the holder of a lock) has it done here, on queues
// of its own. Any thread.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/file_descriptor.hpp"

namespace qm {

class XPCObject;

// Nothing happens for an empty one. With the user on whose behalf the file is open: where files of one user
// cannot be closed, further ones of that user wait and those of others do not. None: the process's own.
void closeElsewhere(FileDescriptor descriptor, std::optional<std::uint32_t> userID = std::nullopt);
// A message with a descriptor in it, perhaps. What somebody else still holds stays.
void releaseElsewhere(XPCObject object);

}  // namespace qm
