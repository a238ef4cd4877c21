// Calls that must be answered by a certain time, whatever becomes of the work for them: whoever ends a call
// first answers it, and a call that nobody ended in time is ended here. One timer serves all calls, and a
// call that has ended leaves nothing behind.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "foundation/block.hpp"
#include "platform/queue.hpp"

namespace qm {

class CallDeadlines : public std::enable_shared_from_this<CallDeadlines> {
 public:
  using Clock = std::chrono::steady_clock;
  // A call: its deadline, and a number that tells it from others with the same.
  using Call = std::pair<Clock::time_point, std::uint64_t>;

  static std::shared_ptr<CallDeadlines> create(std::string label);

  // `expired` runs once, on a serial queue and never early, unless the call is ended before.
  Call begin(Clock::time_point deadline, Block<void()> expired);
  // True once for each call: for the caller that is to answer it.
  [[nodiscard]] bool end(const Call& call);
  bool isPending(const Call& call) const;

 private:
  explicit CallDeadlines(std::string label);
  void wakeAt(Clock::time_point time);
  void expire();

  const Queue queue_;
  mutable std::mutex mutex_;
  std::uint64_t lastNumber_ = 0;
  Clock::time_point nextWake_ = Clock::time_point::max();
  std::map<Call, Block<void()>> pending_;
};

}  // namespace qm
