#include "platform/common/turns.hpp"

#include <algorithm>
#include <chrono>

namespace qm {
namespace {

using Clock = std::chrono::steady_clock;

// How long whoever is next waits before it looks whether those whose turn it is are asleep.
constexpr std::chrono::milliseconds kTimeBetweenLooks{20};

}  // namespace

Turns::Turns(std::size_t processors, IsRunnable isRunnable)
    : processors_(processors), isRunnable_(isRunnable) {}

void Turns::take(ThreadID self) {
  MutexLock lock(mutex_);
  Condition turn;
  waiting_.push_back(&turn);
  while (waiting_.front() != &turn) turn.wait(lock);
  // Whatever wakes it up earlier does not put the next look off.
  auto nextLook = Clock::now() + kTimeBetweenLooks;
  while (!oneIsFree()) {
    turn.waitUntil(lock, nextLook);
    if (Clock::now() < nextLook) continue;
    if (someSleep()) break;
    nextLook = Clock::now() + kTimeBetweenLooks;
  }
  waiting_.pop_front();
  running_.push_back(self);
  callNext();
}

void Turns::giveBack(ThreadID self, bool second) {
  const MutexLock lock(mutex_);
  running_.erase(std::find(running_.begin(), running_.end(), self));
  if (second) --seconds_;
  callNext();
}

bool Turns::decideSecond(bool hasSecond) {
  const MutexLock lock(mutex_);
  if (hasSecond) --seconds_;
  if (waiting_.empty() && oneIsFree()) {
    ++seconds_;
    return true;
  }
  if (hasSecond) callNext();
  return false;
}

bool Turns::someSleep() const {
  const auto busy = static_cast<std::size_t>(std::count_if(running_.begin(), running_.end(), isRunnable_));
  return busy + seconds_ < processors_;
}

void Turns::callNext() {
  if (!waiting_.empty()) waiting_.front()->notifyOne();
}

}  // namespace qm
