#include "platform/linux/notification_center.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <optional>
#include <utility>

#include "foundation/log.hpp"
#include "foundation/strings.hpp"
#include "platform/linux/notification_file.hpp"
#include "platform/linux/process_threads.hpp"
#include "platform/linux/run_folder.hpp"
#include "platform/linux/system_root.hpp"

namespace qm {
namespace {

// Of the folder that holds the files.
constexpr std::uint32_t kFileFolderEvents = kFolderEvents | IN_MODIFY;
constexpr std::uint32_t kWritten = IN_MODIFY | IN_MOVED_TO;
constexpr std::uint32_t kGone = IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;
constexpr std::chrono::seconds kTryAgainAfter{1};

std::set<std::string> lastPathComponents(const std::vector<std::string>& paths) {
  std::set<std::string> names;
  for (const std::string& path : paths) names.insert(lastPathComponent(path));
  return names;
}

}  // namespace

struct NotificationCenter::Registration {
  Registration(int ownToken, std::string_view ownName, Queue onQueue, Block<void(int)> toRun)
      : token(ownToken),
        name(ownName),
        queue(std::move(onQueue)),
        handler(std::move(toRun)),
        stamp(readNotificationStamp(name)) {}

  // Unless a delivery waits that has not begun: it serves for this one as well.
  static void deliver(const std::shared_ptr<Registration>& registration) {
    if (registration->isQueued.exchange(true)) return;
    registration->queue.async([registration] {
      registration->isQueued.exchange(false);
      if (!registration->isCancelled) registration->handler(registration->token);
    });
  }

  const int token;
  const std::string name;
  const Queue queue;
  const Block<void(int)> handler;
  std::optional<std::string> stamp;  // as last seen; the center's mutex guards it
  std::atomic<bool> isQueued = false;
  std::atomic<bool> isCancelled = false;
};

NotificationCenter& NotificationCenter::shared() {
  // Never destroyed: the event loop may call it until the process has ended.
  static NotificationCenter& center = *new NotificationCenter;
  return center;
}

NotificationCenter::NotificationCenter()
    : folders_(foldersOnTheWay(systemRoot(), notificationFolder())),
      folderNames_(lastPathComponents(folders_)) {}

NotificationCenter::~NotificationCenter() = default;

bool NotificationCenter::add(std::string_view name, int& token, const Queue& queue,
                             Block<void(int)> handler) {
  requireNoForkedChild("a notification was registered for");
  const MutexLock lock(mutex_);
  if (!staysInProcess(name) && !startWatching()) {
    const int error = errno;
    if (registrations_.empty()) stopWatching();
    errno = error;
    return false;
  }
  token = unusedToken();
  registrations_.emplace(token, std::make_shared<Registration>(token, name, queue, std::move(handler)));
  return true;
}

int NotificationCenter::unusedToken() {
  do {
    nextToken_ = nextToken_ == INT_MAX ? 0 : nextToken_ + 1;
  } while (registrations_.contains(nextToken_));
  return nextToken_;
}

bool NotificationCenter::remove(int token) {
  Registrations::node_type node;  // released with no lock held
  const MutexLock lock(mutex_);
  node = registrations_.extract(token);
  if (node.empty()) return false;
  node.mapped()->isCancelled = true;
  if (registrations_.empty()) stopWatching();
  return true;
}

void NotificationCenter::deliverHere(std::string_view name) {
  const MutexLock lock(mutex_);
  for (const auto& [token, registration] : registrations_)
    if (registration->name == name) Registration::deliver(registration);
}

bool NotificationCenter::startWatching() {
  if (!inotify_) {
    FileDescriptor inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotify) return false;
    source_ = EventLoop::shared().watch(inotify.get(), {.readable = true},
                                        [this](EventReadiness) { handleEvents(); });
    if (!source_) return false;
    inotify_ = std::move(inotify);
  }
  // Events of watches that have ended concern nobody any more.
  while (registrations_.empty() && readInotifyEvents(inotify_.get(), [](const InotifyEvent&) {})) {
  }
  return watchFolders();
}

// Watches that have become none of the way end; those of folders that stay go on without a gap. A folder that
// is not there, or not a folder, is waited for.
bool NotificationCenter::watchFolders() {
  const std::vector<int> watches = watchFoldersOnTheWay(inotify_.get(), folders_, kFileFolderEvents);
  const int error = watches.size() == folders_.size() ? 0 : errno;
  for (const int old : std::exchange(watches_, watches)) {
    if (std::find(watches.begin(), watches.end(), old) == watches.end())
      ::inotify_rm_watch(inotify_.get(), old);
  }
  errno = error;
  return error == 0 || (!watches.empty() && (error == ENOENT || error == ENOTDIR));
}

// What cannot be watched now is tried again, and posts until then are taken for lost.
void NotificationCenter::watchFoldersAgain() {
  if (watchFolders()) {
    isBlind_ = false;
    return;
  }
  const int error = errno;
  if (!std::exchange(isBlind_, true))
    QM_LOG_ERROR(notificationLog(), "Cannot watch %{public}s: %{public}s", folders_.back(),
                 std::strerror(error));
  if (std::exchange(willTryAgain_, true)) return;
  EventLoop::shared().runAfter(kTryAgainAfter, [this] {
    const MutexLock lock(mutex_);
    willTryAgain_ = false;
    if (registrations_.empty()) return;
    watchFoldersAgain();
    if (!isBlind_) lookAtFiles({.folders = true, .lost = true, .written = {}});
  });
}

void NotificationCenter::stopWatching() {
  if (isForkedChild()) return;  // the descriptor is shared with the parent
  for (const int watch : std::exchange(watches_, {})) ::inotify_rm_watch(inotify_.get(), watch);
}

void NotificationCenter::handleEvents() {
  Changes changes;
  const MutexLock lock(mutex_);
  readInotifyEvents(inotify_.get(), [&](const InotifyEvent& event) { note(event, changes); });
  if (registrations_.empty()) return;
  if (changes.folders) {
    changes.lost = changes.lost || isBlind_;
    watchFoldersAgain();
  }
  lookAtFiles(changes);
}

// An event may be of a folder that is watched no more: it counts all the same.
void NotificationCenter::note(const InotifyEvent& event, Changes& changes) const {
  if ((event.mask & IN_IGNORED) != 0) return;  // the end of a watch, whose reason came before it
  const std::string name(event.name);
  if (name.empty() || folderNames_.contains(name)) {
    changes.folders = true;
    changes.lost = changes.lost || (event.mask & (kGone | IN_Q_OVERFLOW)) != 0;
  }
  if (!name.empty() && (event.mask & kWritten) != 0) changes.written.insert(name);
}

// A stamp seen before is no new post. Without any, posts may have come and gone: in a file that was written,
// or in a folder that appeared, before it could be watched.
void NotificationCenter::lookAtFiles(const Changes& changes) {
  for (const auto& [token, registration] : registrations_) {
    if (staysInProcess(registration->name)) continue;
    const bool written = changes.written.contains(registration->name);
    if (!written && !changes.folders) continue;
    std::optional<std::string> stamp = readNotificationStamp(registration->name);
    const bool posted = !stamp || stamp != registration->stamp;
    if (stamp) registration->stamp = std::move(stamp);
    if (posted || changes.lost) Registration::deliver(registration);
  }
}

}  // namespace qm
