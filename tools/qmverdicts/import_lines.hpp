// The formats that verdicts are imported from, line by line: what they have in common, and block lists. Knows
// nothing of files and the store.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companions/verdict_store.hpp"
#include "tools/failure.hpp"

namespace qm::qmverdicts {

// What a line gives: entries, or why it is skipped, or neither (a comment, a line that is empty).
struct ImportedLine {
  std::vector<VerdictEntry> entries;
  // For people; one of a few texts, so that lines can be grouped by it. Empty when the line is not skipped.
  std::string_view skipped;
};

// Without the spaces and tabs at both ends.
std::string_view trimmed(std::string_view text);
// Takes the next word, between spaces and tabs, off the text; empty at its end.
std::string_view nextWord(std::string_view& text);

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

}  // namespace qm::qmverdicts
