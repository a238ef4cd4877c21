// The platform's autorelease pool around one piece of work.
#pragma once

#include "foundation/block.hpp"

namespace qm {

// Runs the body at once; on macOS every temporary Foundation object made in it is released when it returns.
// On Linux nothing is autoreleased: it just runs.
void autoreleasePool(const Block<void()>& body);

}  // namespace qm
