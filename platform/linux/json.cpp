#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/common/json_parser.hpp"

namespace qm {
namespace {

using Json = nlohmann::json;

constexpr int kGreatestDepth = 64;

Value convert(const Json& json) {
  switch (json.type()) {
    case Json::value_t::boolean:
      return json.get<bool>();
    case Json::value_t::number_integer:
      return json.get<std::int64_t>();
    case Json::value_t::number_unsigned: {
      const auto number = json.get<std::uint64_t>();
      return number <= INT64_MAX ? Value(static_cast<std::int64_t>(number)) : Value(number);
    }
    case Json::value_t::number_float:
      return json.get<double>();
    case Json::value_t::string:
      return json.get_ref<const std::string&>();
    case Json::value_t::array: {
      Array array;
      for (const Json& member : json) array.push_back(convert(member));
      return array;
    }
    case Json::value_t::object: {
      Dictionary dictionary;
      for (const auto& [key, value] : json.items()) dictionary.emplace(key, convert(value));
      return dictionary;
    }
    default:
      return Null();
  }
}

}  // namespace

std::optional<Value> json::parse(std::string_view text, ErrorPtr* error) {
  int depth = 0;
  const auto bounded = [&depth](int level, Json::parse_event_t, const Json&) {
    depth = std::max(depth, level);
    return level <= kGreatestDepth;
  };
  const Json json = Json::parse(text, bounded, false);
  if (depth > kGreatestDepth)
    return refuse(error, "The text is nested more than " + std::to_string(kGreatestDepth) + " deep");
  if (json.is_discarded()) return refuse(error, "The text is no JSON");
  return convert(json);
}

}  // namespace qm
