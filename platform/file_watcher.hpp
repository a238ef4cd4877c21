// Says when the file at a path may have changed, whoever changed it and however: written in place, replaced,
// created, removed, also together with folders on the way to it. The file may be a folder: then also when
// something directly in it is written, comes or goes.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "foundation/block.hpp"

namespace qm {

class FileWatcher {
 public:
  // True asks to be called once more when the file has been left alone for the settling time: for a file that
  // is just being written.
  using Handler = Block<bool(bool settled)>;

  // The path is that of the file system, absolute. The handler runs on a thread of the watcher's: once at the
  // start, when nothing can be missed any more, with settled false; then after every change that may concern
  // the file, sometimes without need; and with settled true when it asked for it and nothing happened since.
  // Where the system cannot watch, changes go unnoticed, and there may not even be the first call.
  FileWatcher(std::string path, std::chrono::milliseconds settlingTime, Handler handler);
  // Returns when the handler has run for the last time. Not from the handler.
  ~FileWatcher();
  FileWatcher(const FileWatcher&) = delete;
  FileWatcher& operator=(const FileWatcher&) = delete;

 private:
  struct Watch;
  const std::unique_ptr<Watch> watch_;
};

}  // namespace qm
