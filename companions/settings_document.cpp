#include "companions/settings_document.hpp"

#include <algorithm>
#include <utility>
#include <variant>

#include "companions/settings_edits.hpp"
#include "companions/settings_error.hpp"
#include "companions/toml_text.hpp"

namespace qm {

namespace {

std::size_t countValues(const Value& value) {
  std::size_t count = 1;
  if (const Array* array = value.as<Array>())
    for (const Value& item : *array) count += countValues(item);
  if (const Dictionary* dictionary = value.as<Dictionary>())
    for (const auto& [key, item] : *dictionary) count += countValues(item);
  return count;
}

bool isAllowList(const Array& list) {
  return std::all_of(list.begin(), list.end(), [](const Value& entry) {
    const std::string* text = entry.as<std::string>();
    return text != nullptr && !text->empty();
  });
}

ErrorPtr firstWrongEntry(const toml::array& list) {
  for (const toml::node& entry : list) {
    const auto* text = entry.as_string();
    if (text == nullptr || text->get().empty())
      return makeTomlError(entry.source().begin, "an entry of allow-list is a text that is not empty");
  }
  return nullptr;
}

// What is wrong with a key at the top of the file; null when nothing is.
ErrorPtr topLevelProblem(const toml::key& key, const toml::node& node) {
  if (key == kAllowListKey) {
    if (node.is_array()) return firstWrongEntry(*node.as_array());
    return makeTomlError(node.source().begin, "allow-list is an array of texts");
  }
  if (key != name(SettingsTable::user) && key != name(SettingsTable::system))
    return makeTomlError(key.source().begin,
                         "\"" + std::string(key.str()) + "\" is neither of user, system and allow-list");
  const toml::table* table = node.as_table();
  if (table == nullptr)
    return makeTomlError(node.source().begin,
                         std::string(key.str()) + " is a table: [" + std::string(key.str()) + "]");
  if (const auto empty = table->find(""); empty != table->end())
    return makeTomlError(empty->first.source().begin, "a setting needs a name");
  return nullptr;
}

// Integers as the file gives them back.
Value asFileHolds(const Value& value) {
  if (const auto* number = value.as<std::uint64_t>()) return static_cast<std::int64_t>(*number);
  if (const Array* array = value.as<Array>()) {
    Array held;
    for (const Value& item : *array) held.push_back(asFileHolds(item));
    return held;
  }
  if (const Dictionary* dictionary = value.as<Dictionary>()) {
    Dictionary held;
    for (const auto& [key, item] : *dictionary) held.emplace(key, asFileHolds(item));
    return held;
  }
  return value;
}

// The first of the texts that says what is wanted. That it is read back is what proves an edit right.
std::optional<SettingsDocument> firstThatSays(const Settings& wanted, std::vector<std::string> candidates,
                                              std::string_view what, ErrorPtr* error) {
  std::string reason;
  for (std::string& text : candidates) {
    ErrorPtr problem;
    std::optional<SettingsDocument> document = SettingsDocument::parse(std::move(text), &problem);
    if (document && document->settings() == wanted) return document;
    reason = problem == nullptr ? "" : " (then: " + problem->localizedDescription() + ")";
  }
  setError(error, makeSettingsError(
                      SettingsError::notEditable,
                      "\"" + std::string(what) + "\" cannot be changed from here, only by hand" + reason));
  return std::nullopt;
}

}  // namespace

const char* name(SettingsTable table) {
  return table == SettingsTable::user ? "user" : "system";
}

std::optional<SettingsDocument> SettingsDocument::parse(std::string text, ErrorPtr* error) {
  const std::optional<toml::table> root = parseToml(text, error);
  if (!root) return std::nullopt;
  SettingsDocument document;
  std::size_t count = 0;
  for (const auto& [key, node] : *root) {
    ErrorPtr problem = topLevelProblem(key, node);
    std::optional<Value> value = problem == nullptr ? valueFromToml(node, &problem) : std::nullopt;
    if (value && (count += countValues(*value)) > kMostSettingsValues)
      problem = makeTomlError(key.source().begin,
                              "more than " + std::to_string(kMostSettingsValues) + " values in the file");
    if (problem != nullptr) {
      setError(error, problem);
      return std::nullopt;
    }
    if (key == kAllowListKey)
      document.settings_.allowList = std::move(*value->as<Array>());
    else
      document.settings_.table(key == "user" ? SettingsTable::user : SettingsTable::system) =
          std::move(*value->as<Dictionary>());
  }
  document.text_ = std::move(text);
  return document;
}

std::optional<SettingsDocument> SettingsDocument::withChanges(SettingsTable table, const Dictionary& changes,
                                                              ErrorPtr* error) const {
  std::optional<SettingsDocument> changed = *this;
  for (const auto& [key, value] : changes) {
    changed = changed->withSetting(table, key, value, error);
    if (!changed) return std::nullopt;
  }
  return changed;
}

std::optional<SettingsDocument> SettingsDocument::withSetting(SettingsTable table, const std::string& key,
                                                              const Value& value, ErrorPtr* error) const {
  const auto refuse = [&](SettingsError code, std::string text) {
    setError(error, makeSettingsError(code, std::move(text)));
    return std::nullopt;
  };
  Settings wanted = settings_;
  Dictionary& settings = wanted.table(table);
  if (value.isNull()) {
    if (settings.erase(key) == 0)
      return refuse(SettingsError::noSuchSetting,
                    "There is no " + std::string(name(table)) + " setting \"" + key + "\" in the file");
  } else if (key.empty() || key.find('\0') != std::string::npos || !tomlLiteral(value) ||
             !tomlLiteral(Value(key))) {
    return refuse(SettingsError::badValue, "A setting needs a name and a value that TOML can hold");
  } else {
    settings[key] = asFileHolds(value);
    if (settings == Settings(settings_).table(table)) return *this;
  }
  return firstThatSays(wanted, editsOfSetting(text_, name(table), key, value), key, error);
}

std::optional<SettingsDocument> SettingsDocument::withAllowList(const Array& allowList,
                                                                ErrorPtr* error) const {
  if (!isAllowList(allowList) || !tomlLiteral(Value(allowList))) {
    setError(error, makeSettingsError(SettingsError::badValue,
                                      "An entry of the allow-list is a text that is not empty"));
    return std::nullopt;
  }
  if (allowList == settings_.allowList) return *this;
  Settings wanted = settings_;
  wanted.allowList = allowList;
  return firstThatSays(wanted, editsOfAllowList(text_, allowList), kAllowListKey, error);
}

}  // namespace qm
