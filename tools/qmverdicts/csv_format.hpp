// Verdicts as comma-separated values: read line by line, and written so that reading gives the same again.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "companions/verdict_store.hpp"
#include "tools/failure.hpp"
#include "tools/qmverdicts/import_lines.hpp"

namespace qm::qmverdicts {

// What the rows are about decides the name of the column they are known by: "hash" (SHA-256 or SHA-1) or
// "url" (a URL or a host name).
enum class CSVSubject : std::uint8_t { file, url };

// Comma-separated values (RFC 4180) in which no field has a line end. The first line names the columns: that
// of the subject and, where wanted, "verdict", "name", "prevalence", "ttl", "source", "added" (seconds since
// 1970) and, of URLs, "categories", in any order and case; others are not looked at. Lines that begin with
// "#" are comments.
class CSVFormat final : public ImportFormat {
 public:
  // What the record has stands where a line says nothing; its verdict may be empty.
  CSVFormat(CSVSubject subject, StoredURLVerdict record) : subject_(subject), record_(std::move(record)) {
    positions_.fill(kNowhere);
  }
  ImportedLine parse(std::string_view line) override;
  tools::Failure failure() const override { return failure_; }

 private:
  enum Column : std::size_t { key, verdict, name, prevalence, ttl, source, added, categories, columnCount };
  static constexpr std::size_t kNowhere = SIZE_MAX;

  void readHeader(std::string_view line);
  // Empty when the line has no such field.
  std::string_view field(Column column) const;
  // The reason when the line has a field of no use.
  std::string_view readKey(VerdictKey& result) const;
  std::string_view fill(StoredURLVerdict& record) const;
  std::string_view fillCategories(StoredURLVerdict& record) const;

  const CSVSubject subject_;
  const StoredURLVerdict record_;
  bool hasHeader_ = false;
  std::array<std::size_t, columnCount> positions_{};
  std::vector<std::string> fields_;  // of the line that is read
  tools::Failure failure_;
};

// The fields of one line of comma-separated values, without the space around those that are not quoted. False
// when a quote is out of place or not closed.
bool splitCSV(std::string_view line, std::vector<std::string>& fields);

// The line of column names, and one for an entry; with its end. An entry whose texts are not fit for a line
// gives nothing.
std::string csvHeader(CSVSubject subject);
std::string csvLine(const VerdictEntry& entry);

}  // namespace qm::qmverdicts
