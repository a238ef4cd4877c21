#include "platform/disposal.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <list>
#include <map>
#include <utility>
#include <vector>

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

// Of one user at a time, those that hang not counted: the others always have as many left.
constexpr std::size_t kRunningPerUser = kDisposalLanes / 2;

constexpr std::uint32_t kRoot = 0;

// Taken as the program is loaded: a child may be the first to let go of something.
const ::pid_t processAtLoad = ::getpid();

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "disposal");
  return log;
}

// Never destroyed: something may hang in there when the process ends.
class Lanes {
 public:
  static Lanes& shared() {
    static Lanes& lanes = *new Lanes;
    return lanes;
  }

  void setPatience(std::chrono::milliseconds time) {
    const MutexLock lock(mutex_);
    patience_ = time;
    if (isWatched_) watch_.after(time, [this] { look(); });
  }

  void add(const Block<void()>& work, std::optional<std::uint32_t> userID) {
    bool isFirstTooMany = false;
    {
      const MutexLock lock(mutex_);
      if (userID) {
        User& user = users_[*userID];
        user.behind.push_back(work);
        admit(*userID, user);
        isFirstTooMany = hasTooMany(*userID, user) && !std::exchange(user.isTooManyLogged, true);
      } else {
        waiting_.push_back({work, std::nullopt});
      }
      arm();
    }
    if (isFirstTooMany)
      QM_LOG_ERROR(log(), "%zu files of user %u wait to be closed: no more of that user's are taken",
                   kMaximumClosingsBehind, *userID);
  }

  bool hasTooMany(std::uint32_t userID) {
    const MutexLock lock(mutex_);
    const auto found = users_.find(userID);
    return found != users_.end() && hasTooMany(userID, found->second);
  }

 private:
  struct Item {
    Block<void()> work;
    std::optional<std::uint32_t> userID;  // none: the process's own
  };
  struct User {
    std::size_t entered = 0;           // at work, or ready for a lane
    std::deque<Block<void()>> behind;  // none while there is something of the user's share left
    bool isHangingLogged = false;
    bool isTooManyLogged = false;
  };
  struct Lane {
    // An item of that user's; between two of them nobody's.
    void turnTo(std::optional<std::uint32_t> user) {
      since = Clock::now();
      userID = user;
      hangs = false;
    }
    bool isHangingFor(std::uint32_t user) const { return hangs && userID == user; }

    Queue queue = Queue::serial("com.quillmarsh.disposal");
    bool isFree = true;
    Clock::time_point since{};            // when its item began, or it was armed
    std::optional<std::uint32_t> userID;  // of its item
    bool hangs = false;
  };

  static bool hasTooMany(std::uint32_t userID, const User& user) {
    return userID != kRoot && user.behind.size() >= kMaximumClosingsBehind;
  }

  std::size_t hangingOf(std::uint32_t userID) const QM_REQUIRES(mutex_) {
    return static_cast<std::size_t>(std::count_if(
        lanes_.begin(), lanes_.end(), [userID](const Lane& lane) { return lane.isHangingFor(userID); }));
  }

  // What the user's share has room for. The rest stays behind until something else of the user is through, or
  // hangs.
  void admit(std::uint32_t userID, User& user) QM_REQUIRES(mutex_) {
    const std::size_t share = std::min(kRunningPerUser + hangingOf(userID), kMaximumDisposalLanesPerUser);
    for (; user.entered < share && !user.behind.empty(); ++user.entered) {
      waiting_.push_back({std::move(user.behind.front()), userID});
      user.behind.pop_front();
    }
    if (!user.behind.empty()) watch();
  }

  void leave(std::uint32_t userID) QM_REQUIRES(mutex_) {
    const auto found = users_.find(userID);
    --found->second.entered;
    admit(userID, found->second);
    if (found->second.entered == 0) users_.erase(found);
  }

  // Another lane takes what waits, soon: those at work may hang. One at a time.
  void arm() QM_REQUIRES(mutex_) {
    if (isArmed_ || waiting_.empty()) return;
    const auto found =
        std::find_if(lanes_.begin(), lanes_.end(), [](const Lane& lane) { return lane.isFree; });
    if (found == lanes_.end()) return watch();
    Lane& lane = *found;
    isArmed_ = true;
    lane.isFree = false;
    lane.turnTo(std::nullopt);
    lane.queue.after(kPause, [this, &lane] { drain(lane); });
  }

  void drain(Lane& lane) {
    MutexLock lock(mutex_);
    isArmed_ = false;
    while (!waiting_.empty()) {
      Item item = std::move(waiting_.front());
      waiting_.pop_front();
      lane.turnTo(item.userID);
      arm();
      lock.unlock();
      item.work();
      item.work = nullptr;
      lock.lock();
      lane.turnTo(std::nullopt);
      if (item.userID) leave(*item.userID);
    }
    lane.hangs = false;
    lane.isFree = true;
    if (lanes_.size() <= wantedLanes()) return;
    lanes_.remove_if([&lane](const Lane& each) { return &each == &lane; });
  }

  std::size_t wantedLanes() const QM_REQUIRES(mutex_) {
    const auto hanging =
        std::count_if(lanes_.begin(), lanes_.end(), [](const Lane& lane) { return lane.hangs; });
    return std::min(kDisposalLanes + static_cast<std::size_t>(hanging), kMaximumDisposalLanes);
  }

  // Something cannot begin because of those at work: do they hang? They are looked at when the first of them
  // would.
  void watch() QM_REQUIRES(mutex_) {
    if (isWatched_) return;
    const Clock::time_point now = Clock::now();
    Clock::time_point earliest = waiting_.empty() ? Clock::time_point::max() : now;
    for (const Lane& lane : lanes_)
      if (!lane.isFree && !lane.hangs) earliest = std::min(earliest, lane.since);
    if (earliest == Clock::time_point::max()) return;
    isWatched_ = true;
    watch_.after(std::max(earliest + patience_ - now, Clock::duration::zero()), [this] { look(); });
  }

  void look() {
    std::vector<std::uint32_t> usersThatHang;
    bool isLast = false;
    {
      const MutexLock lock(mutex_);
      isWatched_ = false;
      markWhatHangs();
      const std::size_t before = lanes_.size();
      const std::size_t wanted = wantedLanes();
      while (lanes_.size() < wanted) lanes_.emplace_back();
      isLast = before < lanes_.size() && lanes_.size() == kMaximumDisposalLanes;
      for (auto& [userID, user] : users_) {
        admit(userID, user);
        if (hangingOf(userID) == kMaximumDisposalLanesPerUser && !std::exchange(user.isHangingLogged, true))
          usersThatHang.push_back(userID);
      }
      arm();
    }
    for (const std::uint32_t userID : usersThatHang)
      QM_LOG_ERROR(log(), "Closing files of user %u hangs %zu times: that user's others stay open", userID,
                   kMaximumDisposalLanesPerUser);
    if (isLast)
      QM_LOG_ERROR(log(), "Closing files hangs %zu times: with %zu more all others stay open, too",
                   kMaximumDisposalLanes - kDisposalLanes, kDisposalLanes);
  }

  void markWhatHangs() QM_REQUIRES(mutex_) {
    const Clock::time_point latest = Clock::now() - patience_;
    for (Lane& lane : lanes_)
      if (!lane.isFree && lane.since <= latest) lane.hangs = true;
  }

  const Queue watch_ = Queue::serial("com.quillmarsh.disposal.watch");
  Mutex mutex_;
  std::list<Lane> lanes_ QM_GUARDED_BY(mutex_){kDisposalLanes};
  std::deque<Item> waiting_ QM_GUARDED_BY(mutex_);             // for a lane
  std::map<std::uint32_t, User> users_ QM_GUARDED_BY(mutex_);  // those with something entered
  std::chrono::milliseconds patience_ QM_GUARDED_BY(mutex_){2000};
  bool isArmed_ QM_GUARDED_BY(mutex_) = false;    // a lane comes that has not begun yet
  bool isWatched_ QM_GUARDED_BY(mutex_) = false;  // look() will run
};

}  // namespace

void setDisposalPatience(std::chrono::milliseconds time) {
  Lanes::shared().setPatience(time);
}

void runOnDisposalLane(const Block<void()>& work, std::optional<std::uint32_t> userID) {
  const int savedErrno = errno;
  if (::getpid() != processAtLoad)
    work();
  else
    Lanes::shared().add(work, userID);
  errno = savedErrno;
}

bool hasTooManyClosings(std::uint32_t userID) {
  return Lanes::shared().hasTooMany(userID);
}

void closeElsewhere(FileDescriptor descriptor, std::optional<std::uint32_t> userID) {
  if (descriptor) disposeElsewhere(std::move(descriptor), userID);
}

void releaseElsewhere(XPCObject object) {
  if (object) disposeElsewhere(std::move(object), std::nullopt);
}

}  // namespace qm
