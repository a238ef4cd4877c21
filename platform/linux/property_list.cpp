#include "platform/property_list.hpp"

#include <plist/plist.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/strings.hpp"
#include "platform/linux/property_list_check.hpp"

namespace qm {
namespace {

constexpr std::int64_t kReferenceDate = 978'307'200;  // 2001-01-01 00:00 UTC, in seconds since 1970

struct NodeDeleter {
  void operator()(void* node) const { plist_free(node); }
};
using Node = std::unique_ptr<void, NodeDeleter>;
struct MemoryDeleter {
  void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using Memory = std::unique_ptr<T, MemoryDeleter>;

std::optional<Value> convert(plist_t node, int depth);

// The node written as XML, which shows what the library's getters lose.
std::string xmlText(plist_t node) {
  char* raw = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(node, &raw, &length);
  const Memory<char> text(raw);
  return raw == nullptr ? std::string() : std::string(raw, length);
}

// The getter gives a negative number and a large one by the same bits.
Value convertInteger(plist_t node) {
  std::uint64_t bits = 0;
  plist_get_uint_val(node, &bits);
  const auto number = static_cast<std::int64_t>(bits);
  if (number >= 0 || xmlText(node).find("<integer>-") != std::string::npos) return number;
  return bits;
}

// Dates further away than 64 bits of nanoseconds reach (the years 1677 to 2262) become the last ones that
// they do.
Value makeDate(std::chrono::sys_seconds time) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  constexpr std::int64_t kLimit = std::numeric_limits<std::int64_t>::max() / kNanoseconds;
  return Date{std::clamp<std::int64_t>(time.time_since_epoch().count(), -kLimit, kLimit) * kNanoseconds};
}

// The getter counts from 2001 in 32 bits; what does not fit is read from the text, in whole seconds.
Value convertDate(plist_t node) {
  std::int32_t seconds = 0;
  std::int32_t microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  if (seconds != std::numeric_limits<std::int32_t>::min() &&
      seconds != std::numeric_limits<std::int32_t>::max()) {
    const std::int64_t fraction = seconds < 0 ? -microseconds : microseconds;
    return Date{((kReferenceDate + seconds) * 1'000'000 + fraction) * 1000};
  }
  const std::string text = xmlText(node);
  const std::size_t start = text.find("<date>");
  int year = 0;
  unsigned month = 1, day = 1;
  int hour = 0, minute = 0, second = 0;
  if (start != std::string::npos)
    std::sscanf(text.c_str() + start, "<date>%d-%u-%uT%d:%d:%d", &year, &month, &day, &hour, &minute,
                &second);
  const std::chrono::year_month_day date(std::chrono::year(std::clamp(year, 1, 9999)),
                                         std::chrono::month(month), std::chrono::day(day));
  return makeDate(std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                  std::chrono::seconds(second));
}

Value convertString(plist_t node) {
  std::uint64_t length = 0;
  const char* const text = plist_get_string_ptr(node, &length);
  if (text == nullptr) return "";
  // A lone surrogate of a UTF-16 string comes out as no UTF-8.
  return lossyUTF8(std::string_view(text, static_cast<std::size_t>(length)));
}

Value convertData(plist_t node) {
  std::uint64_t length = 0;
  const char* const bytes = plist_get_data_ptr(node, &length);
  return bytes == nullptr ? Data() : Data(bytes, static_cast<std::size_t>(length));
}

std::optional<Value> convertArray(plist_t node, int depth) {
  Array result;
  plist_array_iter rawIterator = nullptr;
  plist_array_new_iter(node, &rawIterator);
  const Memory<void> iterator(rawIterator);
  plist_t item = nullptr;
  for (plist_array_next_item(node, rawIterator, &item); item != nullptr;
       plist_array_next_item(node, rawIterator, &item)) {
    std::optional<Value> value = convert(item, depth + 1);
    if (!value) return std::nullopt;
    result.push_back(std::move(*value));
  }
  return result;
}

// A repeated key keeps its first value.
std::optional<Value> convertDictionary(plist_t node, int depth) {
  Dictionary result;
  plist_dict_iter rawIterator = nullptr;
  plist_dict_new_iter(node, &rawIterator);
  const Memory<void> iterator(rawIterator);
  while (true) {
    char* rawKey = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(node, rawIterator, &rawKey, &item);
    const Memory<char> key(rawKey);
    if (item == nullptr) return result;
    std::optional<Value> value = convert(item, depth + 1);
    if (!value || rawKey == nullptr) return std::nullopt;
    result.try_emplace(lossyUTF8(rawKey), std::move(*value));
  }
}

Value convertBoolean(plist_t node) {
  std::uint8_t value = 0;
  plist_get_bool_val(node, &value);
  return value != 0;
}

Value convertReal(plist_t node) {
  double value = 0;
  plist_get_real_val(node, &value);
  return value;
}

// A UID stands for itself only in an archive; here it is the number it holds.
Value convertUID(plist_t node) {
  std::uint64_t value = 0;
  plist_get_uid_val(node, &value);
  return value;
}

std::optional<Value> convert(plist_t node, int depth) {
  if (depth > kMaximumPropertyListDepth) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN:
      return convertBoolean(node);
    case PLIST_UINT:
      return convertInteger(node);
    case PLIST_REAL:
      return convertReal(node);
    case PLIST_STRING:
      return convertString(node);
    case PLIST_DATA:
      return convertData(node);
    case PLIST_DATE:
      return convertDate(node);
    case PLIST_UID:
      return convertUID(node);
    case PLIST_ARRAY:
      return convertArray(node, depth);
    case PLIST_DICT:
      return convertDictionary(node, depth);
    default:
      return std::nullopt;
  }
}

std::optional<Value> parseBinary(const char* bytes, std::size_t length) {
  if (!isSoundBinaryPropertyList(reinterpret_cast<const std::uint8_t*>(bytes), length)) return std::nullopt;
  plist_t raw = nullptr;
  plist_from_bin(bytes, static_cast<std::uint32_t>(length), &raw);
  const Node node(raw);
  return node == nullptr ? std::nullopt : convert(raw, 1);
}

std::optional<Value> parseXML(std::string_view text) {
  if (!isSoundXMLPropertyList(text)) return std::nullopt;
  plist_t raw = nullptr;
  plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &raw);
  const Node node(raw);
  return node == nullptr ? std::nullopt : convert(raw, 1);
}

// Of the old text format what other writers still produce by accident: nothing but white space, which is an
// empty dictionary, and one unquoted string.
std::optional<Value> parseOldStyle(std::string_view text) {
  constexpr std::string_view kWhitespace = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(kWhitespace);
  if (begin == std::string_view::npos) return Dictionary();
  const std::string_view word = text.substr(begin, text.find_last_not_of(kWhitespace) + 1 - begin);
  const bool isUnquotedString = std::all_of(word.begin(), word.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_$/:.-").find(c) != std::string_view::npos;
  });
  return isUnquotedString ? std::optional<Value>(word) : std::nullopt;
}

ErrorPtr makeParseError(std::string text, ErrorPtr oldStyleError = nullptr) {
  Dictionary userInfo{{kDebugDescriptionKey, std::move(text)}};
  if (oldStyleError != nullptr)
    userInfo.emplace("kCFPropertyListOldStyleParsingError", std::move(oldStyleError));
  return makeError(kCocoaErrorDomain, kPropertyListReadCorrupt, std::move(userInfo));
}

// The text of what the XML reader met first, as it is the last of the formats that says where it failed.
ErrorPtr makeUnreadableError(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(" \t\r\n"), text.size());
  const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(begin), '\n');
  if (text.substr(begin).starts_with('<'))
    return makeParseError("Encountered improper XML at line " + std::to_string(line));
  const std::string character = lossyUTF8(text.substr(begin, 1));
  return makeParseError("Unexpected character " + character + " at line " + std::to_string(line),
                        makeParseError(isValidUTF8(text) ? "Junk after plist at line " + std::to_string(line)
                                                         : "Conversion of string failed."));
}

}  // namespace

std::optional<Value> parsePropertyList(const void* bytes, std::size_t length, ErrorPtr* error) {
  if (bytes == nullptr || length == 0) {
    setError(error, makeParseError("Cannot parse a NULL or zero-length data"));
    return std::nullopt;
  }
  if (length > kMaximumPropertyListSize) {
    setError(error, makeParseError("The property list is larger than " +
                                   std::to_string(kMaximumPropertyListSize) + " bytes"));
    return std::nullopt;
  }
  const std::string_view all(static_cast<const char*>(bytes), length);
  if (std::optional<Value> value = parseBinary(all.data(), all.size())) return value;
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  const std::string_view text = all.starts_with(kByteOrderMark) ? all.substr(kByteOrderMark.size()) : all;
  const std::size_t begin = std::min(text.find_first_not_of(" \t\r\n"), text.size());
  std::optional<Value> value =
      text.substr(begin).starts_with('<') ? parseXML(text.substr(begin)) : parseOldStyle(text);
  if (!value) setError(error, makeUnreadableError(text));
  return value;
}

}  // namespace qm
