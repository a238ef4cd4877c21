// The queues behind platform/disposal.hpp, for what else the platform has to let go of.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "foundation/block.hpp"

namespace qm {

// Closings that are at work at a time, those that hang not counted; half of them are one user's at most. A
// lane that another has replaced goes once it is through and nothing waits.
inline constexpr std::size_t kDisposalLanes = 4;
// With those that hang. Each takes a thread for as long. Once so many hang, whatever else is let go of stays
// open until one of them is through: nobody who lets go of something ever waits.
inline constexpr std::size_t kMaximumDisposalLanes = 64;
// Those of them that are one user's. A quarter: files of a user that cannot be closed stay open until one of
// them is, and everybody else's are closed until there are four such users.
inline constexpr std::size_t kMaximumDisposalLanesPerUser = kMaximumDisposalLanes / 4;
// Of one user's closings, those that wait behind others of the same user and are taken all the same. Whoever
// has so many is to bring nothing more; root, whose programs ask for others, is not bound by it. Far more
// than there are at a time without one that hangs.
inline constexpr std::size_t kMaximumClosingsBehind = 16384;

// After how long a closing counts as one that hangs, so that another may begin beside it; two seconds at
// first.
void setDisposalPatience(std::chrono::milliseconds time);

// Runs the work on one of the queues; on the calling thread in a forked child, which has no queues. It counts
// as that user's, or, without one, as the process's own, of which any number is at work. Keeps errno.
void runOnDisposalLane(const Block<void()>& work, std::optional<std::uint32_t> userID);

// The user has as many closings behind others as one may have.
bool hasTooManyClosings(std::uint32_t userID);

// Resets the thing there.
template <class Thing>
void disposeElsewhere(Thing thing, std::optional<std::uint32_t> userID) {
  const auto shared = std::make_shared<Thing>(std::move(thing));
  runOnDisposalLane([shared] { *shared = Thing(); }, userID);
}

}  // namespace qm
