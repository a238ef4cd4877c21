// How a change is made in the text of a settings file. Each function gives texts to try, the most natural one
// first: whether one of them says what is wanted shows when it is parsed.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "foundation/value.hpp"

namespace qm {

inline constexpr std::string_view kAllowListKey = "allow-list";

// The text must be a valid settings file. A null value removes the setting, which must be there then; any
// other must be one that TOML can hold.
std::vector<std::string> editsOfSetting(const std::string& text, std::string_view table,
                                        const std::string& key, const Value& value);
std::vector<std::string> editsOfAllowList(const std::string& text, const Array& allowList);

}  // namespace qm
