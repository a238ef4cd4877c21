// The categories of a URL as the verdict store, the command line and import files write them: names separated
// by spaces, "=0" behind the name of one that the URL is known not to be of. "adult games=0".
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/SVKSkyvaultServiceClientProtocol.hpp"

namespace qm {

inline constexpr std::size_t kMaximumCategories = 64;
inline constexpr std::size_t kMaximumCategoryNameLength = 64;

// ASCII letters, digits, "_", "-" and ".".
bool isCategoryName(std::string_view name);

// Nothing when it is not written like that, or there are too many. "=1" may be said; of a name said twice the
// last one counts.
std::optional<std::vector<SVKSkyvaultCategory>> categoriesFromText(std::string_view text);
std::string textFromCategories(const std::vector<SVKSkyvaultCategory>& categories);

}  // namespace qm
