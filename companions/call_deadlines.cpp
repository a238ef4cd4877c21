#include "companions/call_deadlines.hpp"

#include <vector>

namespace qm {

std::shared_ptr<CallDeadlines> CallDeadlines::create(std::string label) {
  return std::shared_ptr<CallDeadlines>(new CallDeadlines(std::move(label)));
}

CallDeadlines::CallDeadlines(std::string label) : queue_(Queue::serial(std::move(label))) {}

CallDeadlines::Call CallDeadlines::begin(Clock::time_point deadline, Block<void()> expired) {
  const std::lock_guard lock(mutex_);
  const Call call(deadline, ++lastNumber_);
  pending_.emplace(call, std::move(expired));
  if (deadline < nextWake_) wakeAt(deadline);
  return call;
}

bool CallDeadlines::end(const Call& call) {
  std::map<Call, Block<void()>>::node_type ended;  // goes outside of the lock
  const std::lock_guard lock(mutex_);
  ended = pending_.extract(call);
  return !ended.empty();
}

bool CallDeadlines::isPending(const Call& call) const {
  const std::lock_guard lock(mutex_);
  return pending_.contains(call);
}

void CallDeadlines::wakeAt(Clock::time_point time) {
  nextWake_ = time;
  queue_.after(time - Clock::now(), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->expire();
  });
}

void CallDeadlines::expire() {
  std::vector<Block<void()>> due;
  {
    const std::lock_guard lock(mutex_);
    const auto now = Clock::now();
    for (auto first = pending_.begin(); first != pending_.end() && first->first.first <= now;
         first = pending_.erase(first))
      due.push_back(std::move(first->second));
    // A timer of an earlier time that was overtaken finds the next one set.
    if (nextWake_ <= now) nextWake_ = Clock::time_point::max();
    if (!pending_.empty() && pending_.begin()->first.first < nextWake_) wakeAt(pending_.begin()->first.first);
  }
  for (const Block<void()>& expired : due) expired();
}

}  // namespace qm
