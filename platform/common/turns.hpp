// Turns for long work: as much of it runs at a time as there are processors. What both implementations of
// platform/long_work.hpp are made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "platform/common/thread_annotations.hpp"

namespace qm {

// One for the process. Any thread.
class Turns {
 public:
  using ThreadID = std::uint64_t;  // the system's number of a thread

  // Whether a thread is running or could, rather than waiting for something. May be called under the lock, of
  // threads that took a turn.
  using IsRunnable = bool (*)(ThreadID thread);

  Turns(std::size_t processors, IsRunnable isRunnable);
  Turns(const Turns&) = delete;
  Turns& operator=(const Turns&) = delete;

  // Waits for the turn of `self`, the calling thread; first come, first served.
  void take(ThreadID self);
  // With the second one, if there is one.
  void giveBack(ThreadID self, bool second);
  // Takes or gives back a second turn; returns whether there is one now.
  bool decideSecond(bool hasSecond);

 private:
  bool oneIsFree() const QM_REQUIRES(mutex_) { return running_.size() + seconds_ < processors_; }
  bool someSleep() const QM_REQUIRES(mutex_);
  void callNext() QM_REQUIRES(mutex_);

  const std::size_t processors_;
  const IsRunnable isRunnable_;
  Mutex mutex_;
  std::vector<ThreadID> running_ QM_GUARDED_BY(mutex_);
  std::size_t seconds_ QM_GUARDED_BY(mutex_) = 0;
  std::deque<Condition*> waiting_ QM_GUARDED_BY(mutex_);  // each on the stack of its thread
};

}  // namespace qm
