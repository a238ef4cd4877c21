#include "tools/qmr/display_text.hpp"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "foundation/utf8.hpp"

namespace qm::qmr {
namespace {

struct Range {
  char32_t first;
  char32_t last;
};

// Controls, and the format characters that reorder or hide text (Unicode categories Cc, Zl, Zp and parts of
// Cf).
constexpr Range kUnsafe[] = {
    {0x00, 0x1f},     {0x7f, 0x9f},     {0xad, 0xad},       {0x061c, 0x061c},
    {0x180e, 0x180e}, {0x200b, 0x200f}, {0x2028, 0x202e},   {0x2060, 0x206f},
    {0xfeff, 0xfeff}, {0xfff9, 0xfffb}, {0xe0000, 0xe0fff},
};

bool isUnsafe(char32_t scalar) {
  for (const Range& range : kUnsafe)
    if (scalar >= range.first && scalar <= range.last) return true;
  return false;
}

std::string hexadecimal(std::uint32_t number, std::size_t digits) {
  char text[8];
  const auto end = std::to_chars(std::begin(text), std::end(text), number, 16).ptr;
  const std::string number16(text, end);
  return std::string(number16.size() < digits ? digits - number16.size() : 0, '0') + number16;
}

std::string escaped(char32_t scalar) {
  switch (scalar) {
    case U'\n':
      return "\\n";
    case U'\r':
      return "\\r";
    case U'\t':
      return "\\t";
    case 0x1b:
      return "\\e";
    default:
      break;
  }
  if (scalar < 0x80) return "\\x" + hexadecimal(scalar, 2);
  return "\\u{" + hexadecimal(scalar, 1) + "}";
}

std::string escapedBytes(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) text += "\\x" + hexadecimal(static_cast<unsigned char>(byte), 2);
  return text;
}

}  // namespace

std::string displayText(std::string_view text) {
  std::string display;
  display.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    const DecodedScalar decoded = decodeUTF8(text, position);
    const std::string_view bytes = text.substr(position, decoded.length);
    if (!decoded.wellFormed)
      display += escapedBytes(bytes);
    else if (decoded.scalar == U'\\')
      display += "\\\\";
    else if (isUnsafe(decoded.scalar))
      display += escaped(decoded.scalar);
    else
      display += bytes;
    position += decoded.length;
  }
  return display;
}

}  // namespace qm::qmr
