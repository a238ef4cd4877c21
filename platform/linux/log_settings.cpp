#include "platform/linux/log_settings.hpp"

#include <utility>

#include "foundation/strings.hpp"
#include "platform/property_list.hpp"

namespace qm {
namespace {

constexpr std::string_view kDefaultOptions = "DEFAULT-OPTIONS";

ErrorPtr formError(std::string what) {
  return makeError(kCocoaErrorDomain, kPropertyListReadCorrupt, {{kDebugDescriptionKey, std::move(what)}});
}

// Applies "Level"; true unless the form is wrong.
bool applyLevel(const Value& level, LogSettings& settings) {
  const auto* options = level.as<Dictionary>();
  if (options == nullptr) return false;
  const Value* enable = find(*options, "Enable");
  if (enable == nullptr) return true;
  const auto* text = enable->as<std::string>();
  if (text == nullptr) return false;
  const std::string word = asciiLowercase(*text);
  settings.debug = word == "debug";
  settings.info = settings.debug || word == "info";
  return settings.info || word == "default";
}

// Applies one dictionary of options over what holds already.
bool applyOptions(const Value& value, LogSettings& settings) {
  const auto* options = value.as<Dictionary>();
  if (options == nullptr) return false;
  const Value* level = find(*options, "Level");
  if (level != nullptr && !applyLevel(*level, settings)) return false;
  const Value* privateData = find(*options, "Enable-Private-Data");
  if (privateData == nullptr) return true;
  const auto* enabled = privateData->as<bool>();
  if (enabled != nullptr) settings.privateData = *enabled;
  return enabled != nullptr;
}

}  // namespace

std::optional<LogSettingsList> LogSettingsList::parse(const void* bytes, std::size_t length,
                                                      ErrorPtr* error) {
  const std::optional<Value> top = parsePropertyList(bytes, length, error);
  if (!top) return std::nullopt;
  const auto* dictionary = top->as<Dictionary>();
  if (dictionary == nullptr) {
    setError(error, formError("The top object is not a dictionary."));
    return std::nullopt;
  }
  LogSettingsList list;
  const Value* defaults = find(*dictionary, kDefaultOptions);
  if (defaults != nullptr && !applyOptions(*defaults, list.defaults_)) {
    setError(error, formError("The options under “" + std::string(kDefaultOptions) + "” cannot be read."));
    return std::nullopt;
  }
  for (const auto& [category, options] : *dictionary) {
    if (category == kDefaultOptions) continue;
    LogSettings settings = list.defaults_;
    if (!applyOptions(options, settings)) {
      setError(error, formError("The options under “" + category + "” cannot be read."));
      return std::nullopt;
    }
    list.categories_.emplace(category, settings);
  }
  return list;
}

LogSettings LogSettingsList::forCategory(std::string_view category) const {
  const auto found = categories_.find(category);
  return found == categories_.end() ? defaults_ : found->second;
}

}  // namespace qm
