#include "platform/disposal.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <list>
#include <map>
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

  void add(const Block<void()>& work, std::optional<std::uint32_t> userID) {
    const MutexLock lock(mutex_);
    if (userID && !enter(*userID, work)) return;
    waiting_.push_back({work, userID});
    arm();
  }

 private:
  struct Item {
    Block<void()> work;
    std::optional<std::uint32_t> userID;  // none: the process's own
  };
  struct User {
    std::size_t entered = 0;           // at work, or ready for a lane
    std::deque<Block<void()>> behind;  // none while there is something of the user's share left
  };
  struct Lane {
    Queue queue = Queue::serial("com.quillmarsh.disposal");
    bool isFree = true;
    Clock::time_point since{};  // when its item began
  };

  // False when it stays behind until something else of its user is through.
  bool enter(std::uint32_t userID, const Block<void()>& work) QM_REQUIRES(mutex_) {
    User& user = users_[userID];
    if (user.entered < kMaximumDisposalLanesPerUser) {
      ++user.entered;
      return true;
    }
    user.behind.push_back(work);
    return false;
  }

  void leave(std::uint32_t userID) QM_REQUIRES(mutex_) {
    const auto found = users_.find(userID);
    User& user = found->second;
    if (!user.behind.empty()) {
      waiting_.push_back({std::move(user.behind.front()), userID});
      user.behind.pop_front();
    } else if (--user.entered == 0) {
      users_.erase(found);
    }
  }

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
    MutexLock lock(mutex_);
    isArmed_ = false;
    while (!waiting_.empty()) {
      Item item = std::move(waiting_.front());
      waiting_.pop_front();
      lane.since = Clock::now();
      if (!waiting_.empty()) arm();
      lock.unlock();
      item.work();
      item.work = nullptr;
      lock.lock();
      if (item.userID) leave(*item.userID);
    }
    lane.isFree = true;
    if (lanes_.size() <= wantedLanes()) return;
    lanes_.remove_if([&lane](const Lane& each) { return &each == &lane; });
  }

  std::size_t wantedLanes() const QM_REQUIRES(mutex_) {
    const Clock::time_point latest = Clock::now() - patience_;
    const auto hanging = std::count_if(lanes_.begin(), lanes_.end(), [latest](const Lane& lane) {
      return !lane.isFree && lane.since <= latest;
    });
    return std::min(kDisposalLanes + static_cast<std::size_t>(hanging), kMaximumDisposalLanes);
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
      const std::size_t wanted = wantedLanes();
      while (lanes_.size() < wanted) lanes_.emplace_back();
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
  std::list<Lane> lanes_ QM_GUARDED_BY(mutex_){kDisposalLanes};
  std::deque<Item> waiting_ QM_GUARDED_BY(mutex_);             // for a lane
  std::map<std::uint32_t, User> users_ QM_GUARDED_BY(mutex_);  // those with something entered
  std::chrono::milliseconds patience_ QM_GUARDED_BY(mutex_){2000};
  bool isArmed_ QM_GUARDED_BY(mutex_) = false;    // a lane comes that has not begun yet
  bool isWatched_ QM_GUARDED_BY(mutex_) = false;  // replaceWhatHangs() will run
};

}  // namespace

void setDisposalPatience(std::chrono::milliseconds time) {
  Lanes::shared().setPatience(time);
}

void runOnDisposalLane(const Block<void()>& work, std::optional<std::uint32_t> userID) {
  const int savedErrno = errno;
  Lanes& lanes = Lanes::shared();
  if (lanes.areOfParent())
    work();
  else
    lanes.add(work, userID);
  errno = savedErrno;
}

void closeElsewhere(FileDescriptor descriptor, std::optional<std::uint32_t> userID) {
  if (descriptor) disposeElsewhere(std::move(descriptor), userID);
}

void releaseElsewhere(XPCObject object) {
  if (object) disposeElsewhere(std::move(object), std::nullopt);
}

}  // namespace qm
