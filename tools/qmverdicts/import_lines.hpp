// The formats that verdicts about URLs are imported from, line by line. Knows nothing of files and the store.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companions/verdict_store.hpp"
#include "tools/failure.hpp"

namespace qm::qmverdicts {

// What a line gives: entries, or why it is skipped, or neither (a comment, a line that is empty).
struct ImportedLine {
  std::vector<VerdictStore::URLEntry> entries;
  // For people; one of a few texts, so that lines can be grouped by it. Empty when the line is not skipped.
  std::string_view skipped;
};

class ImportFormat {
 public:
  virtual ~ImportFormat() = default;
  // The lines in their order, without their ends.
  virtual ImportedLine parse(std::string_view line) = 0;
  // Why the lines so far cannot be those of this format: nothing more should be read.
  virtual tools::Failure failure() const { return std::nullopt; }
};

// A block list in the format of hosts(5): an address, then host names; "#" begins a comment. Only names with
// an address that leads nowhere (0.0.0.0, loopback) are blocked ones. The names that a machine has for itself
// are left out.
class HostsFormat final : public ImportFormat {
 public:
  // Every host gets this record.
  explicit HostsFormat(StoredURLVerdict record) : record_(std::move(record)) {}
  ImportedLine parse(std::string_view line) override;

 private:
  const StoredURLVerdict record_;
};

// Comma-separated values (RFC 4180) in which no field has a line end. The first line names the columns: "url"
// (a URL or a host name) and, where wanted, "verdict", "name", "prevalence", "ttl", "categories", in any
// order and case; others are not looked at. Lines that begin with "#" are comments.
class CSVFormat final : public ImportFormat {
 public:
  // What the record has stands where a line says nothing; its verdict may be empty.
  explicit CSVFormat(StoredURLVerdict record) : record_(std::move(record)) { positions_.fill(kNowhere); }
  ImportedLine parse(std::string_view line) override;
  tools::Failure failure() const override { return failure_; }

 private:
  enum Column : std::size_t { url, verdict, name, prevalence, ttl, categories, columnCount };
  static constexpr std::size_t kNowhere = SIZE_MAX;

  void readHeader(std::string_view line);
  // Empty when the line has no such field.
  std::string_view field(Column column) const;
  // The reason when the line has a field of no use.
  std::string_view fill(StoredURLVerdict& record) const;

  const StoredURLVerdict record_;
  bool hasHeader_ = false;
  std::array<std::size_t, columnCount> positions_{};
  std::vector<std::string> fields_;  // of the line that is read
  tools::Failure failure_;
};

// The fields of one line of comma-separated values, without the space around those that are not quoted. False
// when a quote is out of place or not closed.
bool splitCSV(std::string_view line, std::vector<std::string>& fields);

}  // namespace qm::qmverdicts
