#include "platform/property_list.hpp"

#include <string>

#include "platform/darwin/foundation_value.hpp"

namespace qm {
namespace {

constexpr std::size_t kLargestSize = 16 * 1024 * 1024;

}  // namespace

std::optional<Value> parsePropertyList(const void* bytes, std::size_t length, ErrorPtr* error) {
  if (length > kLargestSize) {
    setError(error, makeError(kCocoaErrorDomain, kPropertyListReadCorrupt,
                              {{kDebugDescriptionKey, "The property list is larger than " +
                                                          std::to_string(kLargestSize) + " bytes"}}));
    return std::nullopt;
  }
  @autoreleasepool {
    NSData* data = [NSData dataWithBytes:bytes length:bytes == nullptr ? 0 : length];
    NSError* failure = nil;
    id list = [NSPropertyListSerialization propertyListWithData:data
                                                        options:NSPropertyListImmutable
                                                         format:nullptr
                                                          error:&failure];
    if (list == nil) {
      setError(error, errorFrom(failure));
      return std::nullopt;
    }
    // Sets and the identifiers of archives have no value of their own.
    return valueFrom(list, OtherObjects::described);
  }
}

}  // namespace qm
