#include "companions/toml_text.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <type_traits>
#include <utility>

#include "companions/settings_error.hpp"
#include "foundation/strings.hpp"

namespace qm {
namespace {

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

// Looks for nesting that the parser, which recurses and bounds it only in part, would pay for with the stack.
// It need not know what is valid: the parser stops at the first place that is not.
class NestingScan {
 public:
  explicit NestingScan(std::string_view text) : text_(text) {}

  // Where it becomes too deep.
  std::optional<std::size_t> tooDeep() {
    while (position_ < text_.size()) {
      const std::size_t here = position_;
      if (!step()) return here;
    }
    return std::nullopt;
  }

 private:
  bool step() {
    const char c = text_[position_++];
    if (c == '#') {
      position_ = std::min(text_.find('\n', position_), text_.size());
    } else if (c == '"' || c == '\'') {
      skipString(c);
    } else if (c == '.') {
      return ++dots_ < kDeepestTomlNesting;
    } else if (c == '[' || c == '{') {
      dots_ = 0;
      return ++depth_ <= kDeepestTomlNesting;
    } else if (c == ']' || c == '}') {
      dots_ = 0;
      depth_ -= depth_ > 0 ? 1 : 0;
    } else if (c == ',' || c == '=' || c == '\n') {
      dots_ = 0;
    }
    return true;
  }

  // The opening quote is behind us.
  void skipString(char quote) {
    const std::string two(2, quote);
    const bool isMultiLine = text_.substr(position_).starts_with(two);
    if (isMultiLine) position_ += 2;
    while (position_ < text_.size()) {
      const char c = text_[position_++];
      if (c == '\\' && quote == '"') ++position_;
      if (!isMultiLine && (c == quote || c == '\n')) return;
      if (isMultiLine && c == quote && text_.substr(std::min(position_, text_.size())).starts_with(two)) {
        position_ += 2;
        // Up to two quotes may stand right before the closing ones.
        while (position_ < text_.size() && text_[position_] == quote) ++position_;
        return;
      }
    }
  }

  const std::string_view text_;
  std::size_t position_ = 0;
  std::size_t depth_ = 0;
  std::size_t dots_ = 0;
};

bool isCharacterStart(char c) {
  return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
}

// Line and column, counted from 1, in characters as editors do.
toml::source_position placeOf(std::string_view text, std::size_t offset) {
  const std::string_view before = text.substr(0, offset);
  const auto line = std::count(before.begin(), before.end(), '\n') + 1;
  const std::string_view last = before.substr(before.rfind('\n') + 1);
  const auto column = std::count_if(last.begin(), last.end(), isCharacterStart) + 1;
  return {static_cast<toml::source_index>(line), static_cast<toml::source_index>(column)};
}

std::optional<std::size_t> firstIllFormed(std::string_view text) {
  if (isValidUTF8(text)) return std::nullopt;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = std::min(text.find('\n', start), text.size() - 1) + 1;
    if (!isValidUTF8(text.substr(start, end - start))) return start;
    start = end;
  }
  return 0;
}

std::string tooDeepProblem() {
  return "more than " + std::to_string(kDeepestTomlNesting) + " levels inside each other";
}

std::optional<Value> dateFromToml(const toml::date_time& time) {
  using namespace std::chrono;
  constexpr int kFirstYear = 1678;  // what nanoseconds in 64 bits can hold
  constexpr int kLastYear = 2261;
  if (!time.offset || time.date.year < kFirstYear || time.date.year > kLastYear) return std::nullopt;
  const sys_days day(year(time.date.year) / month(time.date.month) / std::chrono::day(time.date.day));
  const nanoseconds instant = day.time_since_epoch() + hours(time.time.hour) + minutes(time.time.minute) +
                              seconds(time.time.second) + nanoseconds(time.time.nanosecond) -
                              minutes(time.offset->minutes);
  return Date{instant.count()};
}

toml::date_time tomlFromDate(Date date) {
  using namespace std::chrono;
  const sys_time<nanoseconds> instant{nanoseconds(date.nanosecondsSince1970)};
  const auto day = floor<days>(instant);
  const year_month_day parts(day);
  const hh_mm_ss<nanoseconds> time(instant - day);
  return {toml::date(int{parts.year()}, unsigned{parts.month()}, unsigned{parts.day()}),
          toml::time(time.hours().count(), time.minutes().count(), time.seconds().count(),
                     time.subseconds().count()),
          toml::time_offset()};
}

// The value as the parser's node, put where `add` says; false when TOML cannot hold it.
template <class Add>
bool nodeFromValue(const Value& value, const Add& add);

bool fillArray(const Array& values, toml::array& array) {
  return std::all_of(values.begin(), values.end(), [&](const Value& value) {
    return nodeFromValue(value, [&](auto&& node) { array.push_back(std::forward<decltype(node)>(node)); });
  });
}

bool fillTable(const Dictionary& values, toml::table& table) {
  table.is_inline(true);
  return std::all_of(values.begin(), values.end(), [&](const auto& entry) {
    return isValidUTF8(entry.first) && nodeFromValue(entry.second, [&](auto&& node) {
             table.insert(entry.first, std::forward<decltype(node)>(node));
           });
  });
}

template <class Add>
bool nodeFromValue(const Value& value, const Add& add) {
  if (const bool* flag = value.as<bool>()) return add(*flag), true;
  if (const std::int64_t* number = value.as<std::int64_t>()) return add(*number), true;
  if (const std::uint64_t* number = value.as<std::uint64_t>()) {
    if (*number > std::uint64_t{std::numeric_limits<std::int64_t>::max()}) return false;
    return add(static_cast<std::int64_t>(*number)), true;
  }
  if (const double* number = value.as<double>()) {
    if (!std::isfinite(*number)) return false;
    return add(*number), true;
  }
  if (const std::string* text = value.as<std::string>()) {
    if (!isValidUTF8(*text)) return false;
    return add(*text), true;
  }
  if (const Date* date = value.as<Date>()) return add(tomlFromDate(*date)), true;
  if (const Array* values = value.as<Array>()) {
    toml::array array;
    if (!fillArray(*values, array)) return false;
    return add(std::move(array)), true;
  }
  if (const Dictionary* values = value.as<Dictionary>()) {
    toml::table table;
    if (!fillTable(*values, table)) return false;
    return add(std::move(table)), true;
  }
  return false;
}

// Quoted texts on one line, as most people write them.
constexpr toml::format_flags kLiteralFlags =
    toml::toml_formatter::default_flags &
    ~(toml::format_flags::allow_literal_strings | toml::format_flags::allow_multi_line_strings);

template <class Node>
std::string textOf(const Node& node) {
  std::ostringstream stream;
  stream << toml::toml_formatter(node, kLiteralFlags);
  return stream.str();
}

// The node, with so many arrays and tables around it.
std::optional<Value> valueInside(std::size_t depth, const toml::node& node, ErrorPtr* error);

std::optional<Value> arrayFromToml(std::size_t depth, const toml::array& nodes, ErrorPtr* error) {
  Array array;
  for (const toml::node& node : nodes) {
    std::optional<Value> value = valueInside(depth + 1, node, error);
    if (!value) return std::nullopt;
    array.push_back(std::move(*value));
  }
  return array;
}

std::optional<Value> dictionaryFromToml(std::size_t depth, const toml::table& nodes, ErrorPtr* error) {
  Dictionary dictionary;
  for (const auto& [key, node] : nodes) {
    std::optional<Value> value = valueInside(depth + 1, node, error);
    if (!value) return std::nullopt;
    dictionary.emplace(key.str(), std::move(*value));
  }
  return dictionary;
}

std::optional<Value> valueInside(std::size_t depth, const toml::node& node, ErrorPtr* error) {
  const auto refuse = [&](std::string_view problem) {
    setError(error, makeTomlError(node.source().begin, problem));
    return std::nullopt;
  };
  // Headers and dotted keys make levels that no bracket shows.
  if ((node.is_table() || node.is_array()) && depth > kDeepestTomlNesting) return refuse(tooDeepProblem());
  if (const toml::table* table = node.as_table()) return dictionaryFromToml(depth, *table, error);
  if (const toml::array* array = node.as_array()) return arrayFromToml(depth, *array, error);
  if (const auto* number = node.as_integer()) return Value(number->get());
  if (const auto* flag = node.as_boolean()) return Value(flag->get());
  if (const auto* text = node.as_string()) {
    if (text->get().find('\0') != std::string::npos) return refuse("a text may not hold the character NUL");
    return Value(text->get());
  }
  if (const auto* number = node.as_floating_point()) {
    if (!std::isfinite(number->get())) return refuse("a number must be finite");
    return Value(number->get());
  }
  if (const auto* time = node.as_date_time())
    if (std::optional<Value> date = dateFromToml(time->get())) return date;
  return refuse("a date must have a time and an offset, and lie between 1678 and 2261");
}

}  // namespace

ErrorPtr makeTomlError(const toml::source_position& place, std::string_view problem) {
  return makeSettingsError(SettingsError::broken, "line " + std::to_string(place.line) + ", column " +
                                                      std::to_string(place.column) + ": " +
                                                      lossyUTF8(problem));
}

std::optional<toml::table> parseToml(std::string_view text, ErrorPtr* error) {
  const auto refuse = [&](std::size_t offset, std::string_view problem) {
    setError(error, makeTomlError(placeOf(text, offset), problem));
    return std::nullopt;
  };
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  if (text.size() > kLargestTomlText)
    return refuse(kLargestTomlText, "the file is larger than " + std::to_string(kLargestTomlText) + " bytes");
  if (const auto offset = firstIllFormed(text)) return refuse(*offset, "the line is not UTF-8 text");
  if (const auto offset = NestingScan(text).tooDeep()) return refuse(*offset, tooDeepProblem());
  try {
    return toml::parse(text);
  } catch (const toml::parse_error& problem) {
    setError(error, makeTomlError(problem.source().begin, problem.description()));
  }
  return std::nullopt;
}

std::optional<Value> valueFromToml(const toml::node& node, ErrorPtr* error) {
  return valueInside(0, node, error);
}

std::optional<std::string> tomlLiteral(const Value& value) {
  std::optional<std::string> text;
  const bool canBeHeld = nodeFromValue(value, [&](auto&& node) {
    using Node = std::remove_cvref_t<decltype(node)>;
    if constexpr (std::is_same_v<Node, toml::array> || std::is_same_v<Node, toml::table>)
      text = textOf(node);
    else
      text = textOf(toml::value(node));
  });
  return canBeHeld ? text : std::nullopt;
}

std::string tomlKey(std::string_view key) {
  const auto isBare = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
  };
  if (!key.empty() && std::all_of(key.begin(), key.end(), isBare)) return std::string(key);
  return textOf(toml::value<std::string>(std::string(key)));
}

TomlPlaces::TomlPlaces(std::string_view text) : text_(text) {
  lines_.push_back(text.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isCharacterStart(text[i])) characters_.push_back(i);
    if (text[i] == '\n') lines_.push_back(i + 1);
  }
}

std::size_t TomlPlaces::offset(const toml::source_position& place) const {
  if (place.line == 0 || place.line > lines_.size()) return text_.size();
  const auto first = std::lower_bound(characters_.begin(), characters_.end(), lines_[place.line - 1]);
  const std::ptrdiff_t column = place.column == 0 ? 0 : std::ptrdiff_t{place.column} - 1;
  return column < characters_.end() - first ? first[column] : text_.size();
}

std::size_t TomlPlaces::lineStart(std::size_t offset) const {
  return *std::prev(std::upper_bound(lines_.begin(), lines_.end(), std::max(offset, lines_.front())));
}

std::size_t TomlPlaces::lineEnd(std::size_t offset) const {
  return std::min(text_.find('\n', offset), text_.size());
}

}  // namespace qm
