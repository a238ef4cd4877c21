#include "companions/settings_store.hpp"

#include <cerrno>
#include <chrono>
#include <utility>

#include "companions/settings_error.hpp"
#include "companions/toml_text.hpp"
#include "foundation/log.hpp"
#include "platform/file_replacement.hpp"
#include "platform/regular_file.hpp"

namespace qm {

namespace {

// How long a file is left alone before what is wrong with it is worth a line.
constexpr std::chrono::milliseconds kSettlingTime{300};
// How often a change is made anew because the file was changed under it.
constexpr int kEditAttempts = 5;

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "qmsettingsd");
  return log;
}

ErrorPtr makeErrnoError(SettingsError code, const std::string& what, const std::string& path) {
  return makeSettingsError(code, "\"" + path + "\" " + what + ": " + systemErrorText(errno));
}

// Right after a replacement that was not done.
ErrorPtr notReplaced(FileReplacement outcome, const std::string& path) {
  if (outcome == FileReplacement::failed)
    return makeErrnoError(SettingsError::notWritten, "cannot be written", path);
  return makeSettingsError(SettingsError::busy, "\"" + path + "\" is being changed all the time");
}

// Nothing with errno ENOENT where there is no file.
std::optional<std::string> readText(const std::string& path) {
  std::optional<std::string> content = readRegularFile(path, kLargestTomlText);
  if (!content && errno == ENOTDIR) errno = ENOENT;
  return content;
}

std::string stateText(const Dictionary& state) {
  std::string text = "# Kept by qmsettingsd; what a person sets stands in config/settings.toml.\n";
  for (const auto& [key, value] : state)
    text += tomlKey(key) + " = " + tomlLiteral(value).value_or("0") + "\n";
  return text;
}

}  // namespace

SettingsStore::SettingsStore(std::string path, std::string statePath, Observer observer)
    : path_(std::move(path)), statePath_(std::move(statePath)), observer_(std::move(observer)) {
  loadState();
  std::optional<std::string> content;
  ErrorPtr error;
  std::optional<SettingsDocument> document = read(content, &error);
  if (document)
    adopt(std::move(*document));
  else
    refuse(error);
}

SettingsStore::~SettingsStore() = default;

void SettingsStore::follow() {
  watcher_ =
      std::make_unique<FileWatcher>(path_, kSettlingTime, [this](bool settled) { return reload(settled); });
}

std::shared_ptr<const Settings> SettingsStore::current(ErrorPtr* error) const {
  const std::lock_guard lock(mutex_);
  if (current_ == nullptr) setError(error, problem_);
  return current_;
}

ErrorPtr SettingsStore::fileProblem() const {
  const std::lock_guard lock(mutex_);
  return problem_;
}

std::optional<SettingsDocument> SettingsStore::read(std::optional<std::string>& content,
                                                    ErrorPtr* error) const {
  content = readText(path_);
  if (content) {
    ErrorPtr problem;
    std::optional<SettingsDocument> document = SettingsDocument::parse(*content, &problem);
    if (!document)
      setError(error, makeSettingsError(SettingsError::broken,
                                        "\"" + path_ + "\", " + problem->localizedDescription()));
    return document;
  }
  if (errno == ENOENT) return SettingsDocument();
  setError(error, makeErrnoError(SettingsError::unreadable, "cannot be read", path_));
  return std::nullopt;
}

bool SettingsStore::reload(bool settled) {
  Change change;
  {
    const std::lock_guard lock(fileMutex_);
    std::optional<std::string> content;
    ErrorPtr error;
    std::optional<SettingsDocument> document = read(content, &error);
    // Who saves a file may take the old one away first, or begin with an empty one.
    const bool isBeingSaved = !document || document->text().empty();
    if (isBeingSaved && !settled) return true;
    if (!document) {
      refuse(error);
      return false;
    }
    change = adopt(std::move(*document));
  }
  tell(change);
  return false;
}

void SettingsStore::refuse(const ErrorPtr& error) {
  hasText_ = true;
  const std::string text = error->localizedDescription();
  if (complaint_ != text)
    QM_LOG_ERROR(log(), "The settings file is not taken, the settings stay as they were: %{public}@", text);
  complaint_ = text;
  const std::lock_guard lock(mutex_);
  problem_ = error;
}

SettingsStore::Change SettingsStore::adopt(SettingsDocument document) {
  if (!complaint_.empty()) QM_LOG(log(), "The settings file is in use again");
  complaint_.clear();
  hasText_ = !document.text().empty();
  const std::lock_guard lock(mutex_);
  problem_ = nullptr;
  file_ = document.settings();
  return put(*file_);
}

SettingsStore::Change SettingsStore::put(Settings settings) {
  for (const auto& [key, value] : state_) settings.system[key] = value;
  const auto old = std::exchange(current_, std::make_shared<const Settings>(std::move(settings)));
  if (old == nullptr) return {true, true};
  return {old->user != current_->user || old->system != current_->system,
          old->allowList != current_->allowList};
}

void SettingsStore::tell(const Change& change) const {
  if (observer_ && (change.settings || change.allowList)) observer_(change);
}

ErrorPtr SettingsStore::change(SettingsTable table, const Dictionary& changes) {
  return edit([&](const SettingsDocument& document, ErrorPtr* error) {
    return document.withChanges(table, changes, error);
  });
}

ErrorPtr SettingsStore::setAllowList(const Array& allowList) {
  return edit([&](const SettingsDocument& document, ErrorPtr* error) {
    return document.withAllowList(allowList, error);
  });
}

ErrorPtr SettingsStore::edit(const Edit& edit) {
  Change change;
  ErrorPtr error;
  FileReplacement outcome = FileReplacement::changedMeanwhile;
  {
    const std::lock_guard lock(fileMutex_);
    for (int i = 0; i < kEditAttempts && outcome == FileReplacement::changedMeanwhile; ++i) {
      std::optional<std::string> content;
      const std::optional<SettingsDocument> document = read(content, &error);
      if (document && document->text().empty() && hasText_)
        return makeSettingsError(SettingsError::busy,
                                 "\"" + path_ + "\" is empty or gone, it may just be being saved");
      std::optional<SettingsDocument> changed = document ? edit(*document, &error) : std::nullopt;
      if (!changed) return error;
      outcome = changed->text() == document->text() ? FileReplacement::done
                                                    : replaceFile(path_, content, changed->text());
      if (outcome == FileReplacement::done) change = adopt(std::move(*changed));
    }
  }
  if (outcome != FileReplacement::done) return notReplaced(outcome, path_);
  tell(change);
  return nullptr;
}

bool SettingsStore::keep(const Dictionary& changes) {
  const std::lock_guard lock(mutex_);
  Dictionary state = state_;
  for (const auto& [key, value] : changes) {
    if (value.isNull())
      state.erase(key);
    else
      state[key] = value;
  }
  if (state == state_) return false;
  state_ = std::move(state);
  isStateTold_ = false;
  if (file_) put(*file_);
  return true;
}

void SettingsStore::writeState() {
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(isStateTold_, true)) return;
  }
  tell({.settings = true, .allowList = false});  // it is in force; nobody need wait for the disk
  const std::lock_guard fileLock(stateFileMutex_);
  if (const ErrorPtr error = replaceState())
    QM_LOG_ERROR(log(), "The state is not written down: %{public}@", error);
}

ErrorPtr SettingsStore::replaceState() const {
  std::string text;
  {
    const std::lock_guard lock(mutex_);
    text = stateText(state_);
  }
  FileReplacement outcome = FileReplacement::changedMeanwhile;
  for (int i = 0; i < kEditAttempts && outcome == FileReplacement::changedMeanwhile; ++i) {
    const std::optional<std::string> content = readText(statePath_);
    if (!content && errno != ENOENT)
      return makeErrnoError(SettingsError::unreadable, "cannot be read", statePath_);
    outcome = replaceFile(statePath_, content, text);
  }
  return outcome == FileReplacement::done ? nullptr : notReplaced(outcome, statePath_);
}

// A state that is broken is as good as none: it comes anew with the next error. One that cannot be read is
// not replaced either.
void SettingsStore::loadState() {
  const std::optional<std::string> content = readText(statePath_);
  if (!content && errno == ENOENT) return;
  ErrorPtr error;
  if (!content) error = makeErrnoError(SettingsError::unreadable, "cannot be read", statePath_);
  const std::optional<toml::table> table = content ? parseToml(*content, &error) : std::nullopt;
  const std::optional<Value> value = table ? valueFromToml(*table, &error) : std::nullopt;
  if (!value) {
    QM_LOG_ERROR(log(), "Starting without the last state: %{public}@", error);
    return;
  }
  state_ = *value->as<Dictionary>();
}

}  // namespace qm
