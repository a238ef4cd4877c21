#include "platform/disposal.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <utility>

#include "foundation/log.hpp"
#include "platform/common/disposal_lanes.hpp"
#include "platform/common/thread_annotations.hpp"
#include "platform/queue.hpp"
#include "platform/xpc.hpp"

namespace qm {
namespace {

using Clock = std::chrono::steady_clock;

// What is let go of in one moment is closed a moment later in one go, which costs little more than to close
// it at once: it is no use to wake a thread for each.
constexpr std::chrono::milliseconds kPause{1};

constinit thread_local bool isLaneThread = false;

// Never destroyed: something may hang in there when the process ends.
class Lanes {
 public:
  static Lanes& shared() {
    static Lanes& lanes = *new Lanes;
    return lanes;
  }

  // A child has the queues, but not their threads.
  bool areOfParent() const { return ::getpid() != process_; }

  void setPatience(std::chrono::milliseconds time) {
    const MutexLock lock(mutex_);
    patience_ = time;
  }

  void add(const Block<void()>& work) {
    const MutexLock lock(mutex_);
    waiting_.push_back(work);
    arm();
  }

 private:
  struct Lane {
    Queue queue = Queue::serial("com.quillmarsh.disposal");
    bool isFree = true;
    Clock::time_point since{};  // when its item began
  };

  // Another lane takes what waits, soon: those at work may hang. One at a time.
  void arm() QM_REQUIRES(mutex_) {
    if (isArmed_) return;
    const auto found =
        std::find_if(lanes_.begin(), lanes_.end(), [](const Lane& lane) { return lane.isFree; });
    if (found == lanes_.end()) return watch();
    Lane& lane = *found;
    isArmed_ = true;
    lane.isFree = false;
    lane.since = Clock::now();
    lane.queue.after(kPause, [this, &lane] { drain(lane); });
  }

  void drain(Lane& lane) {
    isLaneThread = true;
    MutexLock lock(mutex_);
    isArmed_ = false;
    while (!waiting_.empty()) {
      Block<void()> work = std::move(waiting_.front());
      waiting_.pop_front();
      lane.since = Clock::now();
      if (!waiting_.empty()) arm();
      lock.unlock();
      work();
      work = nullptr;
      lock.lock();
    }
    lane.isFree = true;
    isLaneThread = false;
  }

  // All lanes are at work: do they hang?
  void watch() QM_REQUIRES(mutex_) {
    if (isWatched_ || lanes_.size() == kMaximumDisposalLanes) return;
    isWatched_ = true;
    watch_.after(patience_, [this] { replaceWhatHangs(); });
  }

  void replaceWhatHangs() {
    {
      const MutexLock lock(mutex_);
      isWatched_ = false;
      if (waiting_.empty()) return;
      const Clock::time_point latest = Clock::now() - patience_;
      const auto hanging = std::count_if(lanes_.begin(), lanes_.end(), [latest](const Lane& lane) {
        return !lane.isFree && lane.since <= latest;
      });
      const std::size_t wanted = kDisposalLanes + static_cast<std::size_t>(hanging);
      while (lanes_.size() < std::min(wanted, kMaximumDisposalLanes)) lanes_.emplace_back();
      arm();
      if (lanes_.size() < kMaximumDisposalLanes) return;
    }
    QM_LOG_ERROR(Log::create(kQMRLogSubsystem, "disposal"),
                 "Closing files hangs %zu times: with %zu more all others stay open, too",
                 kMaximumDisposalLanes - kDisposalLanes, kDisposalLanes);
  }

  const ::pid_t process_ = ::getpid();
  const Queue watch_ = Queue::serial("com.quillmarsh.disposal.watch");
  Mutex mutex_;
  std::deque<Lane> lanes_ QM_GUARDED_BY(mutex_){kDisposalLanes};  // none ever goes
  std::deque<Block<void()>> waiting_ QM_GUARDED_BY(mutex_);
  std::chrono::milliseconds patience_ QM_GUARDED_BY(mutex_){2000};
  bool isArmed_ QM_GUARDED_BY(mutex_) = false;    // a lane comes that has not begun yet
  bool isWatched_ QM_GUARDED_BY(mutex_) = false;  // replaceWhatHangs() will run
};

}  // namespace

void setDisposalPatience(std::chrono::milliseconds time) {
  Lanes::shared().setPatience(time);
}

void runOnDisposalLane(const Block<void()>& work) {
  const int savedErrno = errno;
  Lanes& lanes = Lanes::shared();
  if (isLaneThread || lanes.areOfParent())
    work();
  else
    lanes.add(work);
  errno = savedErrno;
}

void closeElsewhere(FileDescriptor descriptor) {
  if (descriptor) disposeElsewhere(std::move(descriptor));
}

void releaseElsewhere(XPCObject object) {
  if (object) disposeElsewhere(std::move(object));
}

}  // namespace qm
