// JSON texts (RFC 8259).
#pragma once

#include <optional>
#include <string_view>

#include "foundation/error.hpp"
#include "foundation/value.hpp"

namespace qm {

// The object that is the text's top value; null, booleans, numbers, strings, arrays and objects become the
// values of those names, of repeated keys one counts. Text from outside: up to 1 MiB, not nested more than 64
// deep; everything else gives nothing and NSCocoaErrorDomain 3840.
std::optional<Dictionary> parseJSONObject(std::string_view text, ErrorPtr* error = nullptr);

}  // namespace qm
