// The descriptors 0 to 2 that a process is started with.
#pragma once

namespace qm {

// Gives each of the descriptors 0 to 2 that whoever started the process left closed something to stand for
// it, so that no socket or file opened later is taken for standard input, output or error. Reading from that
// input and writing to those outputs fails with EBADF, as with closed ones. The first thing in main, before
// anything opens a descriptor; aborts where the system has no /dev/null.
void occupyClosedStandardDescriptors();

}  // namespace qm
