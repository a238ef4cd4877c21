#include "tools/qmr/settings_value.hpp"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>
#include <type_traits>
#include <utility>
#include <variant>

#include "foundation/strings.hpp"
#include "tools/qmr/display_text.hpp"

namespace qm::qmr {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kDeepestNesting = 16;

std::optional<Value> valueFromJson(const Json& json, std::size_t depth = 0) {
  if (depth > kDeepestNesting || json.is_null() || json.is_discarded()) return std::nullopt;
  if (json.is_boolean()) return Value(json.get<bool>());
  if (json.is_number_unsigned() && json.get<std::uint64_t>() > INT64_MAX)
    return Value(json.get<std::uint64_t>());
  if (json.is_number_integer()) return Value(json.get<std::int64_t>());
  if (json.is_number_float()) return Value(json.get<double>());
  if (json.is_string()) return Value(json.get<std::string>());
  Array array;
  Dictionary dictionary;
  for (const auto& item : json.items()) {
    std::optional<Value> value = valueFromJson(item.value(), depth + 1);
    if (!value) return std::nullopt;
    if (json.is_array())
      array.push_back(std::move(*value));
    else
      dictionary.insert_or_assign(item.key(), std::move(*value));
  }
  return json.is_array() ? Value(std::move(array)) : Value(std::move(dictionary));
}

std::string isoText(Date date) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  const std::int64_t fraction = ((date.nanosecondsSince1970 % kNanoseconds) + kNanoseconds) % kNanoseconds;
  const std::time_t seconds = (date.nanosecondsSince1970 - fraction) / kNanoseconds;
  std::tm parts{};
  char text[48] = "";
  if (gmtime_r(&seconds, &parts) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::string digits = std::to_string(fraction);
  digits.insert(0, 9 - digits.size(), '0');
  return text + (fraction == 0 ? "" : "." + digits) + "Z";
}

Json jsonFromValue(const Value& value) {
  if (const Array* array = value.as<Array>()) {
    Json json = Json::array();
    for (const Value& item : *array) json.push_back(jsonFromValue(item));
    return json;
  }
  if (const Dictionary* dictionary = value.as<Dictionary>()) {
    Json json = Json::object();
    for (const auto& [key, item] : *dictionary) json[lossyUTF8(key)] = jsonFromValue(item);
    return json;
  }
  if (value.isNull()) return nullptr;
  if (const bool* flag = value.as<bool>()) return *flag;
  if (const auto* number = value.as<std::int64_t>()) return *number;
  if (const auto* number = value.as<std::uint64_t>()) return *number;
  if (const auto* number = value.as<double>()) return *number;
  if (const auto* date = value.as<Date>()) return isoText(*date);
  return lossyUTF8(value.description());
}

}  // namespace

std::optional<Value> settingFromText(const std::string& text) {
  const Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) return Value(text);
  return valueFromJson(json);
}

std::string jsonText(const Value& value) {
  return jsonFromValue(value).dump();
}

std::string displayValue(const Value& value) {
  if (const std::string* text = value.as<std::string>()) return "\"" + displayText(*text) + "\"";
  return jsonFromValue(value).dump(-1, ' ', true);
}

}  // namespace qm::qmr
