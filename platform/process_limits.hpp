// The limits of this process: those that the system sets it, and those it sets itself.
#pragma once

namespace qm {

// Lets this process have as many descriptors open as it may: the soft limit becomes the hard one. For
// daemons, whose peers cost descriptors; early in main. Without effect where the system refuses.
void raiseDescriptorLimit();

// Keeps what the heap holds back for later use in proportion to the processors, not to the threads that there
// have been. For daemons, whose threads come and go; early in main. Without effect where the system's heap
// does so by itself.
void boundHeap();

}  // namespace qm
