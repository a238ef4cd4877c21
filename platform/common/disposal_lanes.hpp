// The queues behind platform/disposal.hpp, for what else the platform has to let go of.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>

#include "foundation/block.hpp"

namespace qm {

// How many closings can hang before the next has to wait for them.
inline constexpr std::size_t kDisposalLanes = 4;
// Descriptors that may wait to be closed. Further ones are closed at once: with so many that wait for
// nothing, running out of descriptors would be worse.
inline constexpr std::size_t kMaximumWaitingDescriptors = 1024;

// Runs the work, which closes so many descriptors, on one of the queues; on the calling thread when that runs
// such work already, or too much waits. Keeps errno.
void runOnDisposalLane(std::size_t descriptors, const Block<void()>& work);

// Resets the thing there.
template <class Thing>
void disposeElsewhere(std::size_t descriptors, Thing thing) {
  const auto shared = std::make_shared<Thing>(std::move(thing));
  runOnDisposalLane(descriptors, [shared] { *shared = Thing(); });
}

}  // namespace qm
