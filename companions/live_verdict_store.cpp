#include "companions/live_verdict_store.hpp"

#include <utility>

#include "foundation/log.hpp"
#include "platform/file_io.hpp"

namespace qm {

namespace {

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "VerdictStore");
  return log;
}

bool is(const ErrorPtr& error, VerdictStoreError code) {
  return error != nullptr && error->domain() == kVerdictStoreErrorDomain &&
         error->code() == static_cast<std::int64_t>(code);
}

}  // namespace

LiveVerdictStore::LiveVerdictStore(std::string path, Clock::time_point (*now)())
    : path_(std::move(path)), now_(now) {}

LiveVerdictStore::FileState LiveVerdictStore::fileState() const {
  FileStatus status;
  if (!statPath(path_.c_str(), status)) return {};
  return {true, status.device, status.inode};
}

std::int64_t LiveVerdictStore::timeOfCreation() const {
  FileStatus status;
  return statPath(path_.c_str(), status) ? status.created : 0;
}

bool LiveVerdictStore::isDamaged(const FileState& state) const {
  return damaged_.state.exists && state == damaged_.state && timeOfCreation() == damaged_.created;
}

// A store that may only be read still answers; nothing new is remembered then. One that is damaged is not
// made worse.
std::shared_ptr<VerdictStore> LiveVerdictStore::openStore(ErrorPtr* error) {
  if (isDamaged(fileState())) return VerdictStore::open(path_, VerdictStore::Access::readOnly, error);
  damaged_ = {};
  std::shared_ptr<VerdictStore> store = VerdictStore::open(path_, VerdictStore::Access::readWrite, error);
  if (store != nullptr ||
      (!is(*error, VerdictStoreError::readOnly) && !is(*error, VerdictStoreError::cannotOpen)))
    return store;
  store = VerdictStore::open(path_, VerdictStore::Access::readOnly);
  if (store != nullptr) QM_LOG_ERROR(log(), "The verdict store is only read: %{public}@", *error);
  return store;
}

std::shared_ptr<VerdictStore> LiveVerdictStore::current() {
  const std::lock_guard lock(mutex_);
  const FileState state = fileState();
  if (state == opened_) {
    if (store_ != nullptr) return store_;
    if (isFailing_ && now_() - lastFailure_ < kRetryInterval) return nullptr;
  }
  store_ = nullptr;
  ErrorPtr error;
  store_ = openStore(&error);
  opened_ = fileState();
  if (store_ == nullptr) noteFailure(error);
  return store_;
}

void LiveVerdictStore::close() {
  std::shared_ptr<VerdictStore> closed;  // outside of the lock
  const std::lock_guard lock(mutex_);
  closed = std::move(store_);
  opened_ = {};
}

void LiveVerdictStore::noteFailure(const ErrorPtr& error) {
  lastFailure_ = now_();
  isFailing_ = true;
  if (complaint_ == error->localizedDescription()) return;
  complaint_ = error->localizedDescription();
  QM_LOG_ERROR(log(), "Answering without the verdict store: %{public}@", complaint_);
}

void LiveVerdictStore::noteSuccess() {
  if (!isFailing_) return;
  const std::lock_guard lock(mutex_);
  if (damaged_.state.exists) return;  // some of it can still be read; the complaint stands
  if (!isFailing_.exchange(false)) return;
  complaint_.clear();
  QM_LOG(log(), "The verdict store %{public}@ is in use again", path_);
}

void LiveVerdictStore::noteRemembering(const ErrorPtr& error) {
  const std::lock_guard lock(mutex_);
  const std::string complaint = error == nullptr ? "" : error->localizedDescription();
  if (std::exchange(rememberingComplaint_, complaint) == complaint) return;
  if (error != nullptr)
    QM_LOG_ERROR(log(), "Analyses cannot be remembered: %{public}@", error);
  else
    QM_LOG(log(), "Analyses are remembered again");
}

void LiveVerdictStore::abandon(const std::shared_ptr<VerdictStore>& store, const ErrorPtr& error) {
  const std::lock_guard lock(mutex_);
  if (store_ != store) return;
  if (is(error, VerdictStoreError::damaged)) damaged_ = {opened_, timeOfCreation()};
  store_ = nullptr;
  noteFailure(error);
}

template <class Question>
bool LiveVerdictStore::ask(const Question& question) {
  const std::shared_ptr<VerdictStore> store = current();
  if (store == nullptr) return false;
  ErrorPtr error;
  question(*store, &error);
  if (error == nullptr) {
    noteSuccess();
    return true;
  }
  abandon(store, error);
  return false;
}

bool LiveVerdictStore::find(const SHA256Value& sha256, std::optional<StoredVerdict>& verdict) {
  verdict = std::nullopt;
  return ask([&](VerdictStore& store, ErrorPtr* error) { verdict = store.find(sha256, error); });
}

bool LiveVerdictStore::find(const std::optional<SHA256Value>& sha256, const std::optional<SHA1Value>& sha1,
                            std::optional<StoredVerdict>& verdict) {
  verdict = std::nullopt;
  return ask([&](VerdictStore& store, ErrorPtr* error) {
    if (auto found = store.findFile(sha256, sha1, error)) verdict = std::move(found->second);
  });
}

bool LiveVerdictStore::findURL(const std::vector<std::string>& keys,
                               std::optional<StoredURLVerdict>& verdict) {
  verdict = std::nullopt;
  return ask([&](VerdictStore& store, ErrorPtr* error) {
    if (auto found = store.findURL(keys, error)) verdict = std::move(found->second);
  });
}

StoredVerdict LiveVerdictStore::remember(const SHA256Value& sha256, const SHA1Value& sha1,
                                         const StoredVerdict& found) {
  const std::shared_ptr<VerdictStore> store = current();
  if (store == nullptr) return found;
  ErrorPtr error;
  std::optional<StoredVerdict> inForce = store->remember(sha256, sha1, found, &error);
  noteRemembering(error);
  if (inForce) return *std::move(inForce);
  // A full disk or another program's long change does not keep the store from answering.
  if (is(error, VerdictStoreError::damaged)) abandon(store, error);
  return found;
}

}  // namespace qm
