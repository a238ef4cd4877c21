// What both implementations of json.hpp share, and what each has of its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/error.hpp"
#include "foundation/value.hpp"

namespace qm::json {

// The system's own: the text's top value, whatever that is; with the bound of depth, without that of size.
std::optional<Value> parse(std::string_view text, ErrorPtr* error);

std::nullopt_t refuse(ErrorPtr* error, std::string reason);

}  // namespace qm::json
