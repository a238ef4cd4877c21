#include "platform/linux/path_watcher.hpp"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>
#include <vector>

#include "foundation/strings.hpp"
#include "platform/linux/inotify.hpp"

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

// A thread that no signal of the process is delivered to.
template <class Body>
std::thread startQuietThread(Body body) {
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  std::thread thread(std::move(body));
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return thread;
}

}  // namespace

PathWatcher::PathWatcher(std::string path, std::chrono::milliseconds settlingTime, Handler handler)
    : path_(std::move(path)),
      settlingTime_(settlingTime),
      handler_(std::move(handler)),
      stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread_(startQuietThread([this] { run(); })) {}

PathWatcher::~PathWatcher() {
  if (stop_) {
    const std::uint64_t one = 1;
    while (::write(stop_.get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
  }
  thread_.join();
}

void PathWatcher::run() {
  watchAnew();
  bool wantsSettled = handler_(false);
  Clock::time_point settlesAt = Clock::now() + settlingTime_;
  if (!stop_ || !inotify_) return;
  while (true) {
    std::array<pollfd, 2> waited{pollfd{.fd = stop_.get(), .events = POLLIN, .revents = 0},
                                 pollfd{.fd = inotify_.get(), .events = POLLIN, .revents = 0}};
    const int ready = ::poll(waited.data(), waited.size(), wantsSettled ? millisecondsUntil(settlesAt) : -1);
    if (ready < 0 && errno != EINTR) return;
    if (ready < 0) continue;
    if (waited[0].revents != 0) return;
    if (waited[1].revents != 0 && drainEvents()) {
      watchAnew();
      wantsSettled = handler_(false);
      settlesAt = Clock::now() + settlingTime_;
    } else if (wantsSettled && Clock::now() >= settlesAt) {
      wantsSettled = false;
      handler_(true);
    }
  }
}

// The file is watched last: whatever appears later makes an event. The old watches end when the new ones
// stand; when those cannot be had, the old ones stay.
void PathWatcher::watchAnew() {
  FileDescriptor fresh(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!fresh) return;
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
