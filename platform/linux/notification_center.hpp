// The registrations of the process for notifications, and the one inotify descriptor that serves them all on
// the event loop. It is made at the first registration and watches nothing while there is none.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/common/thread_annotations.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/linux/event_loop.hpp"
#include "platform/linux/inotify.hpp"
#include "platform/notify.hpp"

namespace qm {

class NotificationCenter {
 public:
  // Lives as long as the process.
  static NotificationCenter& shared();

  // The name is valid and nothing is null. False with errno set when the name cannot be observed.
  bool add(std::string_view name, int& token, const Queue& queue, Block<void(int)> handler);
  // False: no such token.
  bool remove(int token);
  // Delivers to the registrations of this process, for names that stay in it.
  void deliverHere(std::string_view name);

 private:
  struct Registration;
  using Registrations = std::map<int, std::shared_ptr<Registration>>;  // by token

  // What a batch of events says.
  struct Changes {
    bool folders = false;           // on the way to the files
    bool lost = false;              // folders went, or events: posts may have gone with them
    std::set<std::string> written;  // files
  };

  NotificationCenter();
  ~NotificationCenter();  // never called

  bool startWatching() QM_REQUIRES(mutex_);
  bool watchFolders() QM_REQUIRES(mutex_);
  void watchFoldersAgain() QM_REQUIRES(mutex_);
  void stopWatching() QM_REQUIRES(mutex_);
  int unusedToken() QM_REQUIRES(mutex_);
  void handleEvents();
  void note(const InotifyEvent& event, Changes& changes) const;
  void lookAtFiles(const Changes& changes) QM_REQUIRES(mutex_);

  const std::vector<std::string> folders_;  // from the system root to the files
  const std::set<std::string> folderNames_;

  Mutex mutex_;
  Registrations registrations_ QM_GUARDED_BY(mutex_);
  int nextToken_ QM_GUARDED_BY(mutex_) = 0;
  FileDescriptor inotify_ QM_GUARDED_BY(mutex_);
  EventSource source_ QM_GUARDED_BY(mutex_);
  std::vector<int> watches_ QM_GUARDED_BY(mutex_);
  bool isBlind_ QM_GUARDED_BY(mutex_) = false;  // a folder that is there could not be watched
  bool willTryAgain_ QM_GUARDED_BY(mutex_) = false;
};

}  // namespace qm
