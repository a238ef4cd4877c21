// A strand runs blocks one at a time and in order on a target queue of either kind. One connection's handler
// runs on one strand.
#pragma once

#include <deque>
#include <memory>

#include "foundation/block.hpp"
#include "platform/common/thread_annotations.hpp"
#include "platform/queue.hpp"

namespace qm::xpc {

class Strand : public std::enable_shared_from_this<Strand> {
 public:
  // The global queue when the target is null.
  explicit Strand(Queue target) : target_(target ? std::move(target) : Queue::global()) {}

  // Any thread. The strand lives until it has run.
  void async(Block<void()> work);
  const Queue& target() const { return target_; }

 private:
  void run();
  // The next block; null when there is none, and then the strand waits for async.
  Block<void()> take();

  const Queue target_;
  Mutex mutex_;
  std::deque<Block<void()>> work_ QM_GUARDED_BY(mutex_);
  bool isScheduled_ QM_GUARDED_BY(mutex_) = false;
};

}  // namespace qm::xpc
