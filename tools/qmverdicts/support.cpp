#include "tools/qmverdicts/support.hpp"

#include <cstdio>
#include <ctime>
#include <utility>

#include "companions/url_categories.hpp"
#include "foundation/value.hpp"
#include "tools/qmr/display_text.hpp"

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
  for (const std::string& category : options.categories) listed += category + " ";
  auto categories = categoriesFromText(listed);
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

int printCounts(const std::optional<VerdictStore::Counts>& counts, const ErrorPtr& error) {
  if (!counts) return report(error->localizedDescription());
  std::uint64_t total = 0;
  for (const auto& [verdict, number] : *counts) {
    std::printf("%-12s %llu\n", displayText(verdict).c_str(), static_cast<unsigned long long>(number));
    total += number;
  }
  std::printf("%-12s %llu\n", "total", static_cast<unsigned long long>(total));
  return kDone;
}

int printRemoved(const std::optional<std::size_t>& removed, const ErrorPtr& error) {
  if (!removed) return report(error->localizedDescription());
  std::printf("%zu removed\n", *removed);
  return *removed == 0 ? kNotThere : kDone;
}

}  // namespace qm::qmverdicts
