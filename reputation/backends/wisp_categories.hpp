// The categories of a Wisp answer: category name to a dictionary that holds "value".
#pragma once

#include <array>

#include "platform/secure_coding.hpp"

namespace qm::wisp {

// What they may consist of.
inline constexpr std::array<CodedClass, 3> kCategoryClasses{
    {{.name = "NSDictionary"}, {.name = "NSString"}, {.name = "NSNumber"}}};
// A number: whether the category applies.
inline constexpr const char* kCategoryValueKey = "value";

}  // namespace qm::wisp
