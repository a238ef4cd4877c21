// One import: reads lines, gives what they say to the store in batches, and keeps account of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "companions/verdict_store.hpp"
#include "tools/failure.hpp"
#include "tools/qmr/progress_line.hpp"
#include "tools/qmverdicts/import_lines.hpp"

namespace qm::qmverdicts {

class ImportRun {
 public:
  // Entries of one transaction.
  static constexpr std::size_t kBatchSize = 10'000;
  // Bytes. A longer line is skipped.
  static constexpr std::size_t kMaximumLineLength = 64 << 10;

  // Up to so many bytes into the buffer; 0 at the end, negative with errno set on failure.
  using Source = std::function<std::int64_t(char* buffer, std::size_t size)>;

  ImportRun(VerdictStore& store, ImportFormat& format, qmr::ProgressLine& progress)
      : store_(store), format_(format), progress_(progress) {}
  ImportRun(const ImportRun&) = delete;
  ImportRun& operator=(const ImportRun&) = delete;

  // Once. To the end, or to the first failure: the batches before it stay in the store.
  tools::Failure run(const Source& source);

  // Says what is in the store of it, and which lines were skipped for what reason; then nothing is committed
  // until `last` has come back. Any thread, also while it runs.
  void conclude(std::ostream& output, const std::function<void()>& last = nullptr);

  // Of lines that were committed. After run().
  bool hasSkipped() const { return !committed_.skipped.empty(); }

 private:
  using LineRange = std::pair<std::uint64_t, std::uint64_t>;
  struct Skipped {
    std::uint64_t lines = 0;
    std::uint64_t unlisted = 0;  // those beyond the ranges
    std::vector<LineRange> ranges;
  };
  struct Account {
    std::uint64_t lines = 0;
    std::uint64_t added = 0;
    std::uint64_t kept = 0;  // in the store already, from a person
    std::map<std::string_view, Skipped> skipped;
  };

  tools::Failure takeLines(std::string_view bytes);
  tools::Failure takeLine();
  void skip(std::string_view reason);
  tools::Failure commit();

  VerdictStore& store_;
  ImportFormat& format_;
  std::string line_;
  bool isTooLong_ = false;  // of line_: the rest of it is not kept
  std::vector<VerdictStore::URLEntry> batch_;
  Account read_;  // of all lines that were read

  std::mutex mutex_;
  // Under mutex_:
  qmr::ProgressLine& progress_;
  Account committed_;
};

}  // namespace qm::qmverdicts
