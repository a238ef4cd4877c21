// Settings as people and programs write and read them.
#pragma once

#include <optional>
#include <string>

#include "foundation/value.hpp"

namespace qm::qmr {

// JSON when the text is that, else the text itself. Nothing for JSON with null in it or nested deeper than 16
// levels.
std::optional<Value> settingFromText(const std::string& text);

// JSON; dates as ISO 8601 text.
std::string jsonText(const Value& value);
// For a line of output: texts in quotes with what a terminal would act on escaped, everything else as JSON in
// ASCII.
std::string displayValue(const Value& value);

}  // namespace qm::qmr
