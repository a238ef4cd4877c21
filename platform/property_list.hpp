// Property lists, binary and XML.
#pragma once

#include <cstddef>
#include <optional>

#include "foundation/error.hpp"
#include "foundation/value.hpp"

namespace qm {

// Any object may be the top one: strings, numbers, booleans, dates, data, arrays, dictionaries. Bytes from
// outside: bounded depth and size, no input makes it fail in another way than with nothing and
// NSCocoaErrorDomain 3840.
std::optional<Value> parsePropertyList(const void* bytes, std::size_t length, ErrorPtr* error = nullptr);

}  // namespace qm
