#include "platform/json.hpp"

#include <cstddef>
#include <string>
#include <utility>

#include "platform/common/json_parser.hpp"

namespace qm {
namespace {

constexpr std::size_t kLargestSize = 1024 * 1024;

}  // namespace

std::nullopt_t json::refuse(ErrorPtr* error, std::string reason) {
  setError(error, makeError(kCocoaErrorDomain, kPropertyListReadCorrupt,
                            {{kDebugDescriptionKey, std::move(reason)}}));
  return std::nullopt;
}

std::optional<Dictionary> parseJSONObject(std::string_view text, ErrorPtr* error) {
  if (text.size() > kLargestSize)
    return json::refuse(error, "The text is larger than " + std::to_string(kLargestSize) + " bytes");
  std::optional<Value> value = json::parse(text, error);
  if (!value) return std::nullopt;
  Dictionary* const object = value->as<Dictionary>();
  if (object == nullptr) return json::refuse(error, "The text is no JSON object");
  return std::move(*object);
}

}  // namespace qm
