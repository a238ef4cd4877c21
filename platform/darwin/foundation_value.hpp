// Values as the framework's objects and back. For sources in Objective-C++.
#pragma once

#import <Foundation/Foundation.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/error.hpp"
#include "foundation/value.hpp"

namespace qm {

// Bytes that are not UTF-8 become U+FFFD.
NSString* stringFrom(std::string_view text);
// A lone surrogate becomes another character. The empty text for nil.
std::string textFrom(NSString* string);

// NSNull for null.
id objectFrom(const Value& value);
NSError* objectFrom(const Error& error);

// What becomes of an object of a class that no value holds, and of one that is nested too deep.
enum class OtherObjects : std::uint8_t {
  refused,    // nothing becomes of the whole
  described,  // its description stands for it
};
// Null for nil and NSNull.
std::optional<Value> valueFrom(id object, OtherObjects others);
// Null for nil. What its user info holds beside values is described.
ErrorPtr errorFrom(NSError* error);

}  // namespace qm
