#include "tools/qmverdicts/support.hpp"

#include <cstdio>
#include <ctime>
#include <iostream>
#include <map>
#include <utility>

#include "companions/url_categories.hpp"
#include "foundation/value.hpp"
#include "platform/interruption.hpp"
#include "tools/qmr/display_text.hpp"
#include "tools/qmr/progress_line.hpp"

namespace qm::qmverdicts {

using qmr::displayText;

int report(const std::string& text) {
  std::fprintf(stderr, "qmverdicts: %s\n", displayText(text).c_str());
  return kFailed;
}

std::unique_ptr<VerdictStore> openStore(const Options& options, VerdictStore::Access access) {
  ErrorPtr error;
  std::unique_ptr<VerdictStore> store = VerdictStore::open(options.store, access, &error);
  if (store == nullptr) report(error->localizedDescription());
  return store;
}

StoredVerdict recordFrom(const Options& options, std::string source) {
  StoredVerdict record;
  record.verdict = options.verdict;
  if (!options.name.empty()) record.infectionName = options.name;
  record.prevalence = static_cast<std::uint8_t>(options.prevalence);
  record.ttl = options.ttl;
  record.source = std::move(source);
  record.added = Date::now().nanosecondsSince1970 / 1'000'000'000;
  return record;
}

std::optional<StoredURLVerdict> urlRecordFrom(const Options& options, std::string source) {
  std::string listed;
  bool areSingle = true;
  for (const std::string& category : options.categories) {
    areSingle = areSingle && !category.empty() && category.find(' ') == std::string::npos;
    listed += category + " ";
  }
  auto categories = areSingle ? categoriesFromText(listed) : std::nullopt;
  if (categories) return StoredURLVerdict{recordFrom(options, std::move(source)), *std::move(categories)};
  report("a category is NAME or NAME=0, the name up to " + std::to_string(kMaximumCategoryNameLength) +
         " ASCII letters, digits, \"_\", \"-\" and \".\"; there may be " +
         std::to_string(kMaximumCategories) + " of them");
  return std::nullopt;
}

void print(const std::string& subject, const StoredVerdict& record, const std::string& further,
           std::string_view argument) {
  const std::time_t added = static_cast<std::time_t>(record.added);
  std::tm parts{};
  char when[32] = "?";
  if (gmtime_r(&added, &parts) != nullptr) std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &parts);
  const std::string name = record.infectionName ? " name=\"" + displayText(*record.infectionName) + "\"" : "";
  const bool isAnother = argument != subject;
  std::printf("%s %s%s prevalence=%u ttl=%u source=%s added=%s%s%s%s\n", displayText(subject).c_str(),
              displayText(record.verdict).c_str(), name.c_str(), unsigned{record.prevalence},
              unsigned{record.ttl}, displayText(record.source).c_str(), when, further.c_str(),
              isAnother ? "  " : "", isAnother ? displayText(argument).c_str() : "");
}

int printCounts(VerdictStore& store, const Options& options, const std::vector<CountedKind>& kinds) {
  const bool isBySource = options.countBy == "source";
  std::map<std::string, std::vector<std::uint64_t>> rows;
  std::vector<std::uint64_t> totals(kinds.size());
  for (std::size_t column = 0; column < kinds.size(); ++column) {
    ErrorPtr error;
    const VerdictKind kind = kinds[column].kind;
    const auto counts = isBySource ? store.countSources(kind, &error) : store.count(kind, &error);
    if (!counts) return report(error->localizedDescription());
    for (const auto& [name, number] : *counts) {
      rows.try_emplace(name, kinds.size()).first->second[column] = number;
      totals[column] += number;
    }
  }
  std::printf("%-16s", isBySource ? "SOURCE" : "VERDICT");
  for (const CountedKind& kind : kinds) std::printf(" %10s", kind.heading);
  const auto printRow = [](const std::string& name, const std::vector<std::uint64_t>& numbers) {
    std::printf("\n%-16s", name.c_str());
    for (const std::uint64_t number : numbers)
      std::printf(" %10llu", static_cast<unsigned long long>(number));
  };
  for (const auto& [name, numbers] : rows) printRow(displayText(name), numbers);
  printRow("total", totals);
  std::puts("");
  return kDone;
}

int printRemoved(const std::optional<std::size_t>& removed, const ErrorPtr& error) {
  if (!removed) return report(error->localizedDescription());
  std::printf("%zu removed\n", *removed);
  return *removed == 0 ? kNotThere : kDone;
}

int removeSource(VerdictStore& store, const Options& options,
                 std::optional<std::size_t> (VerdictStore::*removal)(const std::string&, ErrorPtr*,
                                                                     const VerdictStore::RemovalObserver&)) {
  qmr::ProgressLine progress(std::cerr, qmr::progressWidth());
  std::size_t done = 0;
  const Interruption interruption([] {});
  const auto show = [&](std::size_t removed, double share) {
    done = removed;
    progress.show([&] {
      return std::to_string(removed) + " removed, " + std::to_string(static_cast<int>(100 * share)) + " %";
    });
    return interruption.signal() == 0;
  };
  ErrorPtr error;
  const std::optional<std::size_t> removed = (store.*removal)(options.source, &error, show);
  progress.clear();
  if (!removed && done != 0) report(std::to_string(done) + " were removed before this:");
  const int status = printRemoved(removed, error);
  if (interruption.signal() == 0) return status;
  std::fflush(stdout);
  endBySignal(interruption.signal());
}

}  // namespace qm::qmverdicts
