// Work that may hang, such as reading a file on a file system that does not answer, done on a thread of its
// own under a deadline.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "foundation/block.hpp"
#include "platform/code_signing.hpp"

namespace qm {

// How many works of one user run at a time; further ones wait for their turn.
inline constexpr std::size_t kMaximumRunningPerUser = 4;
// How many works of one user, and of all, may be stuck beyond their deadline before further ones are refused.
inline constexpr std::size_t kMaximumStuckPerUser = 4;
inline constexpr std::size_t kMaximumStuck = 32;

// Runs the work on behalf of the user and returns its status. 100000 + ETIMEDOUT when it has not returned by
// the deadline: `cancelled` is then true for it, and it goes on alone, so whatever it uses must be its own or
// shared. 100000 + EAGAIN, without running it, when too much work is stuck, the user's turn does not come
// within as long again, or no thread can be had.
OSStatus runSupervised(std::uint32_t userID, std::chrono::nanoseconds deadline,
                       const Block<OSStatus(const std::atomic<bool>& cancelled)>& work);

}  // namespace qm
