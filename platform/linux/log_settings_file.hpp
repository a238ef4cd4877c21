// The logging property list in the file system, followed while the process runs.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/log.hpp"
#include "platform/linux/log_settings.hpp"
#include "platform/linux/path_watcher.hpp"

namespace qm {

class LogSettingsFile {
 public:
  // Reads the file before it returns. Later changes are noticed on a thread of its own, which then calls
  // `changed`. A file that is not there means the defaults. One that cannot be read or parsed, and still
  // cannot when it has been left alone for the settling time, is reported through `broken`, once until it is
  // good again; the last good settings stay.
  LogSettingsFile(std::string path, std::chrono::milliseconds settlingTime, std::function<void()> changed,
                  std::function<void(const ErrorPtr&)> broken);

  // Any thread.
  LogSettings forCategory(std::string_view category) const;

 private:
  enum class Outcome : std::uint8_t { unchanged, changed, broken };
  Outcome read(ErrorPtr& error);
  bool fileChanged(bool settled);

  const std::string path_;
  const std::function<void()> changed_;
  const std::function<void(const ErrorPtr&)> broken_;

  mutable std::mutex mutex_;
  LogSettingsList settings_;  // guarded by mutex_

  std::string content_;          // of the last good file; the watcher's thread only, once it runs
  bool reportedBroken_ = false;  // the watcher's thread only

  std::optional<PathWatcher> watcher_;  // last: it calls fileChanged until it is gone
};

}  // namespace qm
