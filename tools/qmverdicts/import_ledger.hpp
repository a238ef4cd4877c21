// What an import has to answer for: gives the entries to the store in batches, and keeps account of what
// became of them and of what was skipped.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "companions/verdict_store.hpp"
#include "tools/failure.hpp"
#include "tools/qmr/progress_line.hpp"

namespace qm::qmverdicts {

class ImportLedger {
 public:
  using Clock = std::chrono::steady_clock;

  // A transaction has so many entries, or those of so much time: sources differ in speed.
  static constexpr std::size_t kBatchSize = 50'000;
  static constexpr std::chrono::seconds kBatchTime{2};

  // The unit is what the source consists of: "line" or "file". The time is asked of `now`, for tests.
  ImportLedger(VerdictStore& store, qmr::ProgressLine& progress, std::string_view unit,
               Clock::time_point (*now)() = Clock::now)
      : store_(store), progress_(progress), unit_(unit), now_(now), started_(now()), lastCommit_(started_) {}
  ImportLedger(const ImportLedger&) = delete;
  ImportLedger& operator=(const ImportLedger&) = delete;

  // One thread calls these. The reason, and the kind of what is skipped where it is not the unit, are for
  // people: some of a few texts that live as long as the program.
  void add(VerdictEntry entry) { batch_.push_back(std::move(entry)); }
  void skip(std::string_view reason, std::uint64_t line);
  void skip(std::string_view reason, const std::string& name, std::string_view kind = {});
  // So many units are done in all, and so much of the whole (0 to 1) where that is known. Commits when it is
  // time.
  tools::Failure advance(std::uint64_t units, std::optional<double> share);
  tools::Failure commit();

  // Says what is in the store of it, and what was skipped for what reason; then nothing is committed until
  // `last` has come back. Any thread, at any time.
  void conclude(std::ostream& output, const std::function<void()>& last = nullptr);

  // Of what was committed. After the last commit.
  bool hasSkipped() const { return !committed_.skipped.empty(); }

 private:
  using LineRange = std::pair<std::uint64_t, std::uint64_t>;
  struct Skipped {
    std::uint64_t units = 0;
    std::uint64_t unlisted = 0;  // those beyond the lists
    std::vector<LineRange> ranges;
    std::vector<std::string> names;
  };
  using Reason = std::pair<std::string_view, std::string_view>;  // of a kind; that of units is empty
  struct Account {
    std::uint64_t units = 0;
    VerdictStore::ImportOutcome outcome;
    std::map<Reason, Skipped> skipped;
  };

  std::string progressText(std::optional<double> share) const;
  // What became of the entries, and of how many of which kind nothing could be told.
  std::string outcomeText() const;
  std::string skippedText() const;
  static void list(std::ostream& output, const Skipped& skipped);

  VerdictStore& store_;
  qmr::ProgressLine& progress_;
  const std::string_view unit_;
  Clock::time_point (*const now_)();
  const Clock::time_point started_;
  Clock::time_point lastCommit_;
  std::vector<VerdictEntry> batch_;
  Account read_;  // of all that was read; what the store made of it counts when it is committed

  std::mutex mutex_;  // also of the progress
  Account committed_;
};

}  // namespace qm::qmverdicts
