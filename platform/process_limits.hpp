// The limits that the system sets this process.
#pragma once

namespace qm {

// Lets this process have as many descriptors open as it may: the soft limit becomes the hard one. For
// daemons, whose peers cost descriptors; early in main. Without effect where the system refuses.
void raiseDescriptorLimit();

}  // namespace qm
