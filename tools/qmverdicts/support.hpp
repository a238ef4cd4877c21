// What the commands of qmverdicts share.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companions/verdict_store.hpp"

namespace qm::qmverdicts {

enum ExitStatus : int { kDone = 0, kNotThere = 1, kFailed = 2 };

struct Options {
  std::string store;
  std::vector<std::string> arguments;
  std::string verdict;
  std::string name;
  unsigned prevalence = 0;
  std::uint32_t ttl = kDefaultVerdictTTL;
  std::vector<std::string> categories;
  std::string source;
  std::string format;
  std::string countBy = "verdict";
};

// Says it on standard error; kFailed.
int report(const std::string& text);

// Null when it was reported why.
std::unique_ptr<VerdictStore> openStore(const Options& options, VerdictStore::Access access);

// What the options say, as of now.
StoredVerdict recordFrom(const Options& options, std::string source);
// The same for URLs; nothing when it was reported what is wrong with the categories.
std::optional<StoredURLVerdict> urlRecordFrom(const Options& options, std::string source);

// One line: what the record is about, what it says, and the argument that asked for it where that is another
// text.
void print(const std::string& subject, const StoredVerdict& record, const std::string& further,
           std::string_view argument);
// A table: a row for each verdict or source, a column for each kind. The exit status.
struct CountedKind {
  const char* heading;
  VerdictKind kind;
};
int printCounts(VerdictStore& store, const Options& options, const std::vector<CountedKind>& kinds);
// The outcome of a removal.
int printRemoved(const std::optional<std::size_t>& removed, const ErrorPtr& error);
// Removes what is of the options' source, with progress on a terminal; says the outcome, also when a person
// interrupts it. The exit status.
int removeSource(VerdictStore& store, const Options& options,
                 std::optional<std::size_t> (VerdictStore::*removal)(const std::string&, ErrorPtr*,
                                                                     const VerdictStore::RemovalObserver&));

}  // namespace qm::qmverdicts
