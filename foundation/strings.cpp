#include "foundation/strings.hpp"

#include <algorithm>
#include <array>
#include <limits>

#include "foundation/utf8.hpp"

namespace qm {
namespace {

constexpr char32_t kReplacementCharacter = 0xfffd;

bool hasOnlySlashes(std::string_view path) {
  return path.find_first_not_of('/') == std::string_view::npos;
}

std::string_view withoutTrailingSlashes(std::string_view path) {
  const std::size_t last = path.find_last_not_of('/');
  return last == std::string_view::npos ? std::string_view() : path.substr(0, last + 1);
}

// Runs of slashes become one, the one at the end goes unless it is the root.
std::string tidied(std::string_view path) {
  std::string result;
  result.reserve(path.size());
  for (const char c : path)
    if (c != '/' || result.empty() || result.back() != '/') result.push_back(c);
  if (result.size() > 1 && result.back() == '/') result.pop_back();
  return result;
}

bool isBidirectionalControl(char32_t scalar) {
  return scalar == 0x061c || scalar == 0x200e || scalar == 0x200f || (scalar >= 0x202a && scalar <= 0x202e) ||
         (scalar >= 0x2066 && scalar <= 0x2069);
}

bool isAcceptableExtension(std::string_view extension) {
  if (extension.empty()) return false;
  for (std::size_t i = 0; i < extension.size();) {
    const DecodedScalar decoded = decodeUTF8(extension, i);
    if (decoded.scalar == U' ' || decoded.scalar == U'/' || isBidirectionalControl(decoded.scalar))
      return false;
    i += decoded.length;
  }
  return true;
}

// The extension within a name (a last path component), without its dot.
std::string_view extensionOfName(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return {};
  if (name.substr(0, dot).find_first_not_of('.') == std::string_view::npos) return {};
  const std::string_view extension = name.substr(dot + 1);
  return isAcceptableExtension(extension) ? extension : std::string_view();
}

bool isWhitespaceOrNewline(char32_t scalar) {
  return (scalar >= 0x09 && scalar <= 0x0d) || scalar == 0x20 || scalar == 0x85 || scalar == 0xa0 ||
         scalar == 0x1680 || (scalar >= 0x2000 && scalar <= 0x200b) || scalar == 0x2028 || scalar == 0x2029 ||
         scalar == 0x202f || scalar == 0x205f || scalar == 0x3000;
}

// Where the last scalar of a non-empty text begins. A stray continuation byte counts as a scalar of its own.
std::size_t lastScalarPosition(std::string_view text) {
  const std::size_t earliest = text.size() > 4 ? text.size() - 4 : 0;
  for (std::size_t position = text.size() - 1;; --position) {
    const DecodedScalar decoded = decodeUTF8(text, position);
    if (decoded.wellFormed && position + decoded.length == text.size()) return position;
    if (position == earliest) return text.size() - 1;
  }
}

// The zeros of the decimal digits (general category Nd) of the basic multilingual plane; nine more follow
// each.
constexpr std::array<char16_t, 37> kDigitZeros{
    0x0030, 0x0660, 0x06f0, 0x07c0, 0x0966, 0x09e6, 0x0a66, 0x0ae6, 0x0b66, 0x0be6, 0x0c66, 0x0ce6, 0x0d66,
    0x0de6, 0x0e50, 0x0ed0, 0x0f20, 0x1040, 0x1090, 0x17e0, 0x1810, 0x1946, 0x19d0, 0x1a80, 0x1a90, 0x1b50,
    0x1bb0, 0x1c40, 0x1c50, 0xa620, 0xa8d0, 0xa900, 0xa9d0, 0xa9f0, 0xaa50, 0xabf0, 0xff10};

// 0 to 9, or -1 for anything but a decimal digit.
int digitValue(char32_t scalar) {
  const auto above = std::upper_bound(kDigitZeros.begin(), kDigitZeros.end(), scalar,
                                      [](char32_t value, char16_t zero) { return value < zero; });
  if (above == kDigitZeros.begin()) return -1;
  const char32_t distance = scalar - *(above - 1);
  return distance <= 9 ? static_cast<int>(distance) : -1;
}

std::size_t skipSpaces(std::string_view text, std::size_t position) {
  return std::min(text.find_first_not_of(' ', position), text.size());
}

void appendUTF8(std::string& out, std::string_view text, std::size_t position, const DecodedScalar& decoded) {
  if (decoded.wellFormed)
    out.append(text, position, decoded.length);
  else
    out.append("\xef\xbf\xbd");
}

}  // namespace

DecodedScalar decodeUTF8(std::string_view text, std::size_t position) {
  const auto byte = [&](std::size_t offset) -> unsigned {
    return position + offset < text.size() ? static_cast<unsigned char>(text[position + offset]) : 0U;
  };
  const unsigned lead = byte(0);
  if (lead < 0x80) return {.scalar = lead, .length = 1, .wellFormed = true};
  const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4) return {.scalar = kReplacementCharacter, .length = 1, .wellFormed = false};
  // The second byte's range shuts out overlong forms, surrogates and what lies above U+10FFFF.
  const unsigned lowest = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
  const unsigned highest = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
  char32_t scalar = lead & (0x7fU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const unsigned next = byte(i);
    const bool fits = i == 1 ? next >= lowest && next <= highest : next >= 0x80 && next <= 0xbf;
    if (!fits) return {.scalar = kReplacementCharacter, .length = i, .wellFormed = false};
    scalar = (scalar << 6) | (next & 0x3f);
  }
  return {.scalar = scalar, .length = length, .wellFormed = true};
}

std::string lastPathComponent(std::string_view path) {
  if (path.empty()) return {};
  const std::string_view trimmed = withoutTrailingSlashes(path);
  if (trimmed.empty()) return "/";
  return std::string(trimmed.substr(trimmed.rfind('/') + 1));
}

std::string pathExtension(std::string_view path) {
  return std::string(extensionOfName(lastPathComponent(path)));
}

std::string stringByDeletingPathExtension(std::string_view path) {
  std::string result = tidied(path);
  const std::size_t extension = pathExtension(result).size();
  if (extension > 0) result.resize(result.size() - extension - 1);
  return result;
}

std::string stringByDeletingLastPathComponent(std::string_view path) {
  if (path.empty()) return {};
  const std::string_view trimmed = withoutTrailingSlashes(path);
  if (trimmed.empty()) return "/";
  const std::size_t slash = trimmed.rfind('/');
  if (slash == std::string_view::npos) return {};
  const std::string_view parent = withoutTrailingSlashes(trimmed.substr(0, slash));
  return parent.empty() ? "/" : std::string(parent);
}

std::optional<std::string> stringByAppendingPathExtension(std::string_view path, std::string_view extension) {
  if (hasOnlySlashes(path)) return std::nullopt;
  if (extension.find_first_of("/ ") != std::string_view::npos || extension.ends_with('.'))
    return std::nullopt;
  std::string result = tidied(path);
  if (!extension.empty()) result.append(".").append(extension);
  return result;
}

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component) {
  if (path.empty()) return tidied(component);
  return tidied(std::string(path).append("/").append(component));
}

std::vector<std::string> pathComponents(std::string_view path) {
  std::vector<std::string> components;
  if (path.starts_with('/')) components.emplace_back("/");
  for (std::size_t start = 0; start < path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (end > start) components.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  if (path.size() > 1 && path.ends_with('/')) components.emplace_back("/");
  return components;
}

std::vector<std::string> componentsSeparatedByString(std::string_view text, std::string_view separator) {
  std::vector<std::string> components;
  std::size_t start = 0;
  for (std::size_t found = separator.empty() ? std::string_view::npos : text.find(separator);
       found != std::string_view::npos; found = text.find(separator, start)) {
    components.emplace_back(text.substr(start, found - start));
    start = found + separator.size();
  }
  components.emplace_back(text.substr(start));
  return components;
}

std::string componentsJoinedByString(const std::vector<std::string>& components, std::string_view separator) {
  std::string joined;
  for (const std::string& component : components) {
    if (&component != components.data()) joined.append(separator);
    joined.append(component);
  }
  return joined;
}

std::string trimWhitespaceAndNewlines(std::string_view text) {
  while (!text.empty()) {
    const DecodedScalar first = decodeUTF8(text, 0);
    if (!isWhitespaceOrNewline(first.scalar)) break;
    text.remove_prefix(first.length);
  }
  while (!text.empty()) {
    const std::size_t last = lastScalarPosition(text);
    if (!isWhitespaceOrNewline(decodeUTF8(text, last).scalar)) break;
    text.remove_suffix(text.size() - last);
  }
  return std::string(text);
}

std::int64_t integerValue(std::string_view text) {
  constexpr std::uint64_t kLargest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  std::size_t position = skipSpaces(text, 0);
  bool negative = false;
  if (position < text.size() && (text[position] == '+' || text[position] == '-')) {
    negative = text[position] == '-';
    position = skipSpaces(text, position + 1);
  }
  const std::uint64_t limit = negative ? kLargest + 1 : kLargest;
  std::uint64_t magnitude = 0;
  while (position < text.size()) {
    const DecodedScalar decoded = decodeUTF8(text, position);
    const int digit = digitValue(decoded.scalar);
    if (digit < 0) break;
    const auto value = static_cast<std::uint64_t>(digit);
    magnitude = magnitude > (limit - value) / 10 ? limit : magnitude * 10 + value;
    position += decoded.length;
  }
  return static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude);
}

std::string asciiLowercase(std::string_view text) {
  std::string result(text);
  for (char& c : result)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return result;
}

bool isValidUTF8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const DecodedScalar decoded = decodeUTF8(text, i);
    if (!decoded.wellFormed) return false;
    i += decoded.length;
  }
  return true;
}

std::string lossyUTF8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const DecodedScalar decoded = decodeUTF8(text, i);
    appendUTF8(result, text, i, decoded);
    i += decoded.length;
  }
  return result;
}

std::string hexadecimal(const std::uint8_t* bytes, std::size_t length) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(2 * length);
  for (std::size_t i = 0; i < length; ++i) {
    text.push_back(kDigits[bytes[i] >> 4]);
    text.push_back(kDigits[bytes[i] & 0x0f]);
  }
  return text;
}

std::string base64(const std::uint8_t* bytes, std::size_t length) {
  static constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((length + 2) / 3 * 4);
  for (std::size_t i = 0; i < length; i += 3) {
    const std::size_t count = std::min<std::size_t>(3, length - i);
    std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16;
    if (count > 1) group |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
    if (count > 2) group |= bytes[i + 2];
    for (unsigned place = 0; place < 4; ++place)
      text.push_back(place <= count ? kAlphabet[(group >> (18 - 6 * place)) & 0x3f] : '=');
  }
  return text;
}

}  // namespace qm
