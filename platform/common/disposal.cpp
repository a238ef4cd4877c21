#include "platform/disposal.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/common/disposal_lanes.hpp"
#include "platform/common/thread_annotations.hpp"
#include "platform/queue.hpp"
#include "platform/xpc.hpp"

namespace qm {
namespace {

// Never destroyed: something may hang in there when the process ends.
class Lanes {
 public:
  static Lanes& shared() {
    static Lanes& lanes = *new Lanes;
    return lanes;
  }

  // On the thread that works for one of them.
  bool areCurrent() const {
    return std::any_of(queues_.begin(), queues_.end(), [](const Queue& queue) { return queue.isCurrent(); });
  }

  // False when too much waits.
  bool add(std::size_t descriptors, const Block<void()>& work) {
    const MutexLock lock(mutex_);
    if (descriptors_ + descriptors > kMaximumWaitingDescriptors) return false;
    const auto lane = std::min_element(ofLane_.begin(), ofLane_.end());
    descriptors_ += descriptors;
    *lane += descriptors;
    queues_[static_cast<std::size_t>(lane - ofLane_.begin())].async([this, lane, descriptors, work] {
      work();
      const MutexLock done(mutex_);
      *lane -= descriptors;
      descriptors_ -= descriptors;
    });
    return true;
  }

 private:
  Lanes() {
    std::generate(queues_.begin(), queues_.end(), [] { return Queue::serial("com.quillmarsh.disposal"); });
  }

  std::array<Queue, kDisposalLanes> queues_;
  Mutex mutex_;
  // Waiting, or being closed.
  std::array<std::size_t, kDisposalLanes> ofLane_ QM_GUARDED_BY(mutex_){};
  std::size_t descriptors_ QM_GUARDED_BY(mutex_) = 0;  // of all lanes
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
