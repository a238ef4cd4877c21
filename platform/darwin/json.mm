#include "platform/json.hpp"

#include <string>
#include <utility>

#include "platform/darwin/foundation_value.hpp"

namespace qm {
namespace {

constexpr std::size_t kLargestSize = 1024 * 1024;

std::nullopt_t refuse(ErrorPtr* error, std::string reason) {
  setError(error, makeError(kCocoaErrorDomain, kPropertyListReadCorrupt,
                            {{kDebugDescriptionKey, std::move(reason)}}));
  return std::nullopt;
}

}  // namespace

std::optional<Dictionary> parseJSONObject(std::string_view text, ErrorPtr* error) {
  if (text.size() > kLargestSize)
    return refuse(error, "The text is larger than " + std::to_string(kLargestSize) + " bytes");
  @autoreleasepool {
    NSError* failure = nil;
    id object = [NSJSONSerialization JSONObjectWithData:[NSData dataWithBytes:text.data() length:text.size()]
                                                options:0
                                                  error:&failure];
    if (object == nil) {
      setError(error, errorFrom(failure));
      return std::nullopt;
    }
    std::optional<Value> value = valueFrom(object, OtherObjects::refused);
    Dictionary* const dictionary = value ? value->as<Dictionary>() : nullptr;
    if (dictionary == nullptr) return refuse(error, "The text is no JSON object, or nested too deep");
    return std::move(*dictionary);
  }
}

}  // namespace qm
