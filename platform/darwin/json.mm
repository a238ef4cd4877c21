#include "platform/common/json_parser.hpp"
#include "platform/darwin/foundation_value.hpp"

namespace qm {

std::optional<Value> json::parse(std::string_view text, ErrorPtr* error) {
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
    if (!value) return refuse(error, "The text is nested too deep");
    return value;
  }
}

}  // namespace qm
