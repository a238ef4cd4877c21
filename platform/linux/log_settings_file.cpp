#include "platform/linux/log_settings_file.hpp"

#include <cerrno>
#include <utility>

#include "platform/file_io.hpp"

namespace qm {
namespace {

constexpr std::size_t kLargestFile = 1024 * 1024;  // bytes

// The whole file; nothing with errno set.
std::optional<std::string> readRegularFile(const std::string& path) {
  const FileDescriptor file = openForReading(path.c_str());
  FileStatus status;
  if (!file || !statDescriptor(file.get(), status)) return std::nullopt;
  if (!status.isRegularFile) {
    errno = status.isDirectory ? EISDIR : EINVAL;
    return std::nullopt;
  }
  std::string content(kLargestFile + 1, '\0');
  std::size_t length = 0;
  while (length < content.size()) {
    const std::int64_t count = readAt(file.get(), content.data() + length, content.size() - length,
                                      static_cast<std::int64_t>(length));
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length > kLargestFile) {
    errno = EFBIG;
    return std::nullopt;
  }
  content.resize(length);
  return content;
}

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
  std::optional<std::string> content = readRegularFile(path_);
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
