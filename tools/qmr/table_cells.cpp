#include "tools/qmr/table_cells.hpp"

#include <algorithm>

#include "tools/qmr/display_text.hpp"

namespace qm::qmr {
namespace {

constexpr const char* kPlain = "\x1b[0m";

std::string spaces(std::string_view text, std::size_t width) {
  const auto used = static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xc0) != 0x80; }));
  return std::string(used < width ? width - used : 0, ' ');
}

}  // namespace

std::string left(std::string_view text, std::size_t width) {
  return std::string(text) + spaces(text, width);
}
std::string right(std::string_view text, std::size_t width) {
  return spaces(text, width) + std::string(text);
}

std::string subject(std::string_view text) {
  return text.empty() ? "''" : displayText(text);
}

std::string coloured(const std::string& text, std::string_view colour) {
  return colour.empty() ? text : std::string(colour) + text + kPlain;
}

}  // namespace qm::qmr
