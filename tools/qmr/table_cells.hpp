// The cells of the tables for people.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qm::qmr {

inline constexpr const char* kGap = "  ";     // between two cells
inline constexpr const char* kNothing = "-";  // in a cell without a content

inline constexpr const char* kRed = "\x1b[1;31m";
inline constexpr const char* kYellow = "\x1b[33m";
inline constexpr const char* kGreen = "\x1b[32m";
inline constexpr const char* kMagenta = "\x1b[35m";

// Filled up with spaces to so many code points, which is what most terminals give a column each; longer text
// stays as it is.
std::string left(std::string_view text, std::size_t width);
std::string right(std::string_view text, std::size_t width);

// What was asked about: as displayText, '' when it is empty.
std::string subject(std::string_view text);

// The text as it is when the colour is empty.
std::string coloured(const std::string& text, std::string_view colour);

}  // namespace qm::qmr
