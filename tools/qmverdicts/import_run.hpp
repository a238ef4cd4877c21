// An import of lines: reads them and hands what they say to the ledger.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "tools/failure.hpp"
#include "tools/qmverdicts/import_ledger.hpp"
#include "tools/qmverdicts/import_lines.hpp"

namespace qm::qmverdicts {

class ImportRun {
 public:
  // Bytes. A longer line is skipped.
  static constexpr std::size_t kMaximumLineLength = 64 << 10;

  // Up to so many bytes into the buffer; 0 at the end, negative with errno set on failure. EAGAIN is none:
  // there is nothing more for now, which is the time to commit what waits.
  using Source = std::function<std::int64_t(char* buffer, std::size_t size)>;

  // Of a source of so many bytes, where that is known.
  ImportRun(ImportLedger& ledger, ImportFormat& format, std::optional<std::int64_t> size = std::nullopt)
      : ledger_(ledger), format_(format), size_(size) {}
  ImportRun(const ImportRun&) = delete;
  ImportRun& operator=(const ImportRun&) = delete;

  // Once. To the end, or to the first failure: the batches before it stay in the store.
  tools::Failure run(const Source& source);

 private:
  tools::Failure takeLines(std::string_view bytes);
  tools::Failure takeLine();
  std::optional<double> share() const;

  ImportLedger& ledger_;
  ImportFormat& format_;
  const std::optional<std::int64_t> size_;
  std::int64_t position_ = 0;
  std::uint64_t lines_ = 0;
  std::string line_;
  bool isTooLong_ = false;  // of line_: the rest of it is not kept
};

}  // namespace qm::qmverdicts
