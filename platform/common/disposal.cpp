#include "platform/disposal.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <deque>
#include <utility>

#include "platform/common/disposal_lanes.hpp"
#include "platform/common/thread_annotations.hpp"
#include "platform/queue.hpp"
#include "platform/xpc.hpp"

namespace qm {
namespace {

// What is let go of in one moment is closed a moment later in one go, which costs little more than to close
// it at once: it is no use to wake a thread for each.
constexpr std::chrono::milliseconds kPause{1};

// Never destroyed: something may hang in there when the process ends.
class Lanes {
 public:
  static Lanes& shared() {
    static Lanes& lanes = *new Lanes;
    return lanes;
  }

  // On the thread that works for one of them.
  bool areCurrent() const {
    return std::any_of(lanes_.begin(), lanes_.end(), [](const Lane& lane) { return lane.queue.isCurrent(); });
  }

  // False when too much waits.
  bool add(std::size_t descriptors, const Block<void()>& work) {
    const MutexLock lock(mutex_);
    if (descriptors_ + descriptors > kMaximumWaitingDescriptors) return false;
    descriptors_ += descriptors;
    waiting_.push_back({descriptors, work});
    arm();
    return true;
  }

 private:
  struct Lane {
    Queue queue = Queue::serial("com.quillmarsh.disposal");
    bool isFree = true;
  };
  struct Item {
    std::size_t descriptors = 0;
    Block<void()> work;
  };

  // Another lane takes what waits, soon: those at work may hang. One at a time.
  void arm() QM_REQUIRES(mutex_) {
    const auto lane = std::find_if(lanes_.begin(), lanes_.end(), [](const Lane& one) { return one.isFree; });
    if (isArmed_ || lane == lanes_.end()) return;
    isArmed_ = true;
    lane->isFree = false;
    lane->queue.after(kPause, [this, lane] { drain(*lane); });
  }

  void drain(Lane& lane) {
    MutexLock lock(mutex_);
    isArmed_ = false;
    while (!waiting_.empty()) {
      Item item = std::move(waiting_.front());
      waiting_.pop_front();
      if (!waiting_.empty()) arm();
      lock.unlock();
      item.work();
      item.work = nullptr;
      lock.lock();
      descriptors_ -= item.descriptors;
    }
    lane.isFree = true;
  }

  std::array<Lane, kDisposalLanes> lanes_;  // the queues do not change
  Mutex mutex_;
  std::deque<Item> waiting_ QM_GUARDED_BY(mutex_);
  std::size_t descriptors_ QM_GUARDED_BY(mutex_) = 0;  // of what waits or is being closed
  bool isArmed_ QM_GUARDED_BY(mutex_) = false;         // a lane comes that has not begun yet
};

}  // namespace

void runOnDisposalLane(std::size_t descriptors, const Block<void()>& work) {
  const int savedErrno = errno;
  Lanes& lanes = Lanes::shared();
  if (lanes.areCurrent() || !lanes.add(descriptors, work)) work();
  errno = savedErrno;
}

void closeElsewhere(FileDescriptor descriptor) {
  if (descriptor) disposeElsewhere(1, std::move(descriptor));
}

void releaseElsewhere(XPCObject object) {
  if (object) disposeElsewhere(1, std::move(object));
}

}  // namespace qm
