#include "platform/linux/log_settings_file.hpp"

#include <cerrno>
#include <utility>

#include "platform/regular_file.hpp"

namespace qm {
namespace {

constexpr std::size_t kLargestFile = 1024 * 1024;  // bytes

}  // namespace

LogSettingsFile::LogSettingsFile(std::string path, std::chrono::milliseconds settlingTime,
                                 std::function<void()> changed, std::function<void(const ErrorPtr&)> broken)
    : path_(std::move(path)), changed_(std::move(changed)), broken_(std::move(broken)) {
  ErrorPtr ignored;  // the watcher's first call meets it again
  read(ignored);
  watcher_.emplace(path_, settlingTime, [this](bool settled) { return fileChanged(settled); });
}

LogSettings LogSettingsFile::forCategory(std::string_view category) const {
  const std::lock_guard lock(mutex_);
  return settings_.forCategory(category);
}

LogSettingsFile::Outcome LogSettingsFile::read(ErrorPtr& error) {
  std::optional<std::string> content = readRegularFile(path_, kLargestFile);
  const bool missing = !content && (errno == ENOENT || errno == ENOTDIR);
  if (!content && !missing) {
    error = makeFileReadError(errno, path_);
    return Outcome::broken;
  }
  std::optional<LogSettingsList> settings = LogSettingsList();
  if (content) settings = LogSettingsList::parse(content->data(), content->size(), &error);
  if (!settings) return Outcome::broken;
  const bool same = content_ == content.value_or("");
  content_ = content.value_or("");
  const std::lock_guard lock(mutex_);
  settings_ = std::move(*settings);
  return same ? Outcome::unchanged : Outcome::changed;
}

bool LogSettingsFile::fileChanged(bool settled) {
  ErrorPtr error;
  const Outcome outcome = read(error);
  if (outcome != Outcome::broken) {
    reportedBroken_ = false;
    if (outcome == Outcome::changed) changed_();
    return false;
  }
  if (!settled) return !reportedBroken_;
  if (!reportedBroken_) broken_(error);
  reportedBroken_ = true;
  return false;
}

}  // namespace qm
