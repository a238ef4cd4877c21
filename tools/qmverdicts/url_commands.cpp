#include "tools/qmverdicts/url_commands.hpp"

#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "companions/url_categories.hpp"
#include "companions/url_key.hpp"
#include "tools/qmr/display_text.hpp"

namespace qm::qmverdicts {

namespace {

// All failures are reported.
std::optional<std::vector<std::string>> keysFrom(const std::vector<std::string>& arguments) {
  std::vector<std::string> keys;
  for (const std::string& argument : arguments) {
    if (std::optional<std::string> key = urlKey(argument))
      keys.push_back(*std::move(key));
    else
      report(argument + ": no URL with a host and no host name");
  }
  if (keys.size() != arguments.size()) return std::nullopt;
  return keys;
}

}  // namespace

int addURLs(const Options& options) {
  const auto keys = keysFrom(options.arguments);
  const auto record = urlRecordFrom(options, kVerdictSourceManual);
  if (!keys || !record) return kFailed;
  std::vector<VerdictStore::URLEntry> entries;
  for (const std::string& key : *keys) entries.emplace_back(key, *record);
  const auto store = openStore(options, VerdictStore::Access::readWrite);
  if (store == nullptr) return kFailed;
  ErrorPtr error;
  if (!store->addURLs(entries, &error)) return report(error->localizedDescription());
  return kDone;
}

int removeURLs(const Options& options) {
  const auto keys = keysFrom(options.arguments);
  if (!keys) return kFailed;
  const auto store = openStore(options, VerdictStore::Access::change);
  if (store == nullptr) return kFailed;
  if (!options.source.empty()) return removeSource(*store, options, &VerdictStore::removeURLsOfSource);
  ErrorPtr error;
  return printRemoved(store->remove({keys->begin(), keys->end()}, &error), error);
}

int showURLs(const Options& options) {
  const auto keys = keysFrom(options.arguments);
  if (!keys) return kFailed;
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  int status = kDone;
  for (const std::string& argument : options.arguments) {
    ErrorPtr error;
    const auto found = store->findURL(urlLookupKeys(argument), &error);
    if (error != nullptr) return report(error->localizedDescription());
    if (found) {
      const std::string categories = textFromCategories(found->second.categories);
      print(found->first, found->second, categories.empty() ? "" : " categories=\"" + categories + "\"",
            argument);
      continue;
    }
    std::printf("%s not in the store\n", qmr::displayText(argument).c_str());
    status = kNotThere;
  }
  return status;
}

int countURLs(const Options& options) {
  const auto store = openStore(options, VerdictStore::Access::look);
  if (store == nullptr) return kFailed;
  return printCounts(*store, options, {{"URLS", VerdictKind::url}});
}

}  // namespace qm::qmverdicts
