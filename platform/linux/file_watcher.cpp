#include "platform/file_watcher.hpp"

#include <utility>

#include "platform/linux/path_watcher.hpp"

namespace qm {

struct FileWatcher::Watch {
  Watch(std::string path, std::chrono::milliseconds settlingTime, Handler handler)
      : watcher(std::move(path), settlingTime,
                [handler = std::move(handler)](bool settled) { return handler(settled); }) {}
  PathWatcher watcher;
};

FileWatcher::FileWatcher(std::string path, std::chrono::milliseconds settlingTime, Handler handler)
    : watch_(std::make_unique<Watch>(std::move(path), settlingTime, std::move(handler))) {}

FileWatcher::~FileWatcher() = default;

}  // namespace qm
