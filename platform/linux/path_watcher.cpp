#include "platform/linux/path_watcher.hpp"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>
#include <vector>

#include "foundation/strings.hpp"
#include "platform/linux/inotify.hpp"
#include "platform/linux/process_threads.hpp"

namespace qm {
namespace {

using Clock = std::chrono::steady_clock;

// Of the file itself; where it is a folder, of what it holds, too.
constexpr std::uint32_t kFileEvents =
    IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_CREATE | IN_DELETE | IN_MOVE;

int millisecondsUntil(Clock::time_point time) {
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(rest.count(), 0));
}

// True when `set`, an epoll instance, has the descriptor from now on until it is closed.
bool addReadable(int set, int descriptor) {
  epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
  return ::epoll_ctl(set, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

}  // namespace

PathWatcher::PathWatcher(std::string path, std::chrono::milliseconds settlingTime, Handler handler)
    : path_(std::move(path)),
      settlingTime_(settlingTime),
      handler_(std::move(handler)),
      stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      waited_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (addReadable(waited_.get(), stop_.get())) thread_ = startThread("qm.watcher", [this] { run(); });
}

PathWatcher::~PathWatcher() {
  if (!thread_.joinable()) return;
  const std::uint64_t one = 1;
  while (::write(stop_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  thread_.join();
}

void PathWatcher::run() {
  watchAnew();
  bool wantsSettled = handler_(false);
  Clock::time_point settlesAt = Clock::now() + settlingTime_;
  while (true) {
    // Unlike poll(2) it goes on waiting when the process may have fewer descriptors than it has.
    epoll_event ready{};
    ::epoll_wait(waited_.get(), &ready, 1, wantsSettled ? millisecondsUntil(settlesAt) : -1);
    if (isStopped()) return;
    if (drainEvents()) {
      watchAnew();
      wantsSettled = handler_(false);
      settlesAt = Clock::now() + settlingTime_;
    } else if (wantsSettled && Clock::now() >= settlesAt) {
      wantsSettled = false;
      handler_(true);
    }
  }
}

bool PathWatcher::isStopped() const {
  std::uint64_t count = 0;
  return ::read(stop_.get(), &count, sizeof count) == sizeof count;
}

// The file is watched last: whatever appears later makes an event. The old watches end when the new ones
// stand; when those cannot be had, the old ones stay.
void PathWatcher::watchAnew() {
  FileDescriptor fresh(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!addReadable(waited_.get(), fresh.get())) return;
  const std::vector<std::string> folders = foldersOnTheWay("/", stringByDeletingLastPathComponent(path_));
  const std::vector<int> watches = watchFoldersOnTheWay(fresh.get(), folders, kFolderEvents | IN_CLOSE_WRITE);
  // Also by itself, for a file reached through a link and for what a folder holds.
  fileWatch_ =
      watches.size() == folders.size() ? ::inotify_add_watch(fresh.get(), path_.c_str(), kFileEvents) : -1;
  inotify_ = std::move(fresh);
}

// Reads away what there is; true when some of it may concern the file.
bool PathWatcher::drainEvents() {
  const std::vector<std::string> names = pathComponents(path_);
  bool concerned = false;
  // Other files of the folders on the way come and go: only names that are part of the path count.
  const auto look = [&](const InotifyEvent& event) {
    concerned = concerned || event.name.empty() || event.watch == fileWatch_ ||
                std::find(names.begin(), names.end(), event.name) != names.end();
  };
  while (readInotifyEvents(inotify_.get(), look)) {
  }
  return concerned;
}

}  // namespace qm
