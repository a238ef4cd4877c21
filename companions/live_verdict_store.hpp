// A companion's hold on the verdict store: opens it, notices when its file is replaced, and carries on
// without it when it cannot be used, trying again now and then. What is wrong stands in the log once, not
// with every question.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "companions/verdict_store.hpp"
#include "platform/digest.hpp"

namespace qm {

// Any thread.
class LiveVerdictStore {
 public:
  using Clock = std::chrono::steady_clock;

  // After a failure the store is looked at again when its file is another one or when this time has passed.
  static constexpr std::chrono::seconds kRetryInterval{10};

  // The time is asked of `now`, for tests.
  explicit LiveVerdictStore(std::string path, Clock::time_point (*now)() = Clock::now);

  // Opens it now rather than with the first question. False when it cannot be used.
  bool open() { return current() != nullptr; }
  // The next question opens it again.
  void close();

  // False when the store cannot be used; the verdict is empty then.
  bool find(const SHA256Value& sha256, std::optional<StoredVerdict>& verdict);
  // As VerdictStore::findFile().
  bool find(const std::optional<SHA256Value>& sha256, const std::optional<SHA1Value>& sha1,
            std::optional<StoredVerdict>& verdict);
  // As with one hash, for the first of the keys that is there.
  bool findURL(const std::vector<std::string>& keys, std::optional<StoredURLVerdict>& verdict);
  // Keeps what an analysis found unless a person said otherwise, and returns the verdict in force: what was
  // found when it could not be kept.
  StoredVerdict remember(const SHA256Value& sha256, const SHA1Value& sha1, const StoredVerdict& found);

 private:
  // The file behind the path: another one when any of this differs.
  struct FileState {
    bool exists = false;
    std::int32_t device = 0;
    std::uint64_t inode = 0;
    friend bool operator==(const FileState&, const FileState&) = default;
  };
  // A file that is only read from then on. The number of one that was removed may be that of the next one
  // made.
  struct DamagedFile {
    FileState state;
    std::int64_t created = 0;  // seconds since 1970
  };

  FileState fileState() const;
  bool isDamaged(const FileState& state) const;
  std::int64_t timeOfCreation() const;
  std::shared_ptr<VerdictStore> current();
  // Asks the store; false when it cannot be used.
  template <class Question>
  bool ask(const Question& question);
  std::shared_ptr<VerdictStore> openStore(ErrorPtr* error);
  // The store is given up until it is looked at again.
  void abandon(const std::shared_ptr<VerdictStore>& store, const ErrorPtr& error);
  void noteFailure(const ErrorPtr& error);  // with the mutex held
  void noteSuccess();
  void noteRemembering(const ErrorPtr& error);

  const std::string path_;
  Clock::time_point (*const now_)();
  std::mutex mutex_;
  std::shared_ptr<VerdictStore> store_;
  FileState opened_;  // what store_ has open, or what failed
  DamagedFile damaged_;
  Clock::time_point lastFailure_;  // when store_ is null
  std::string complaint_;          // what the log says about the failure that lasts
  std::string rememberingComplaint_;
  std::atomic<bool> isFailing_ = false;
};

}  // namespace qm
