// Says when the file at a path may have changed: written, replaced, created, removed, also when folders on
// the way to it are made, moved or removed. Rests on inotify and one thread that sleeps in between.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "platform/file_descriptor.hpp"

namespace qm {

class PathWatcher {
 public:
  // True asks to be called once more when the file has been left alone for the settling time.
  using Handler = std::function<bool(bool settled)>;

  // The path is absolute. The handler runs on the watcher's thread: once at the start, when nothing can be
  // missed any more, with settled false; then after every change that may concern the file, sometimes without
  // need; and with settled true when it asked for it and nothing happened since. Where the system gives no
  // watch, changes after the first call go unnoticed; where it gives no thread, or no descriptors to wait
  // with, there is no call.
  PathWatcher(std::string path, std::chrono::milliseconds settlingTime, Handler handler);
  // Returns when the handler has run for the last time.
  ~PathWatcher();
  PathWatcher(const PathWatcher&) = delete;
  PathWatcher& operator=(const PathWatcher&) = delete;

 private:
  void run();
  bool isStopped() const;
  void watchAnew();
  bool drainEvents();

  const std::string path_;
  const std::chrono::milliseconds settlingTime_;
  const Handler handler_;
  const FileDescriptor stop_;    // an eventfd, readable when the thread is to end
  const FileDescriptor waited_;  // an epoll instance with stop_ and inotify_
  FileDescriptor inotify_;       // the thread's own
  int fileWatch_ = -1;           // that of the file itself, where there is one
  std::thread thread_;
};

}  // namespace qm
