// The queues behind platform/disposal.hpp, for what else the platform has to let go of.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <utility>

#include "foundation/block.hpp"

namespace qm {

// Closings that are at work at a time, those that hang not counted.
inline constexpr std::size_t kDisposalLanes = 4;
// With those that hang. Each takes one of the process's 512 workers for as long. Once so many hang, whatever
// else is let go of stays open until one of them is through: nobody who lets go of something ever waits.
inline constexpr std::size_t kMaximumDisposalLanes = 128;

// After how long a closing counts as one that hangs, so that another may begin beside it; two seconds at
// first.
void setDisposalPatience(std::chrono::milliseconds time);

// Runs the work on one of the queues; on the calling thread when that runs such work already, and in a forked
// child, which has no queues. Keeps errno.
void runOnDisposalLane(const Block<void()>& work);

// Resets the thing there.
template <class Thing>
void disposeElsewhere(Thing thing) {
  const auto shared = std::make_shared<Thing>(std::move(thing));
  runOnDisposalLane([shared] { *shared = Thing(); });
}

}  // namespace qm
