#include "foundation/value.hpp"

#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "foundation/error.hpp"
#include "foundation/strings.hpp"
#include "foundation/utf8.hpp"

namespace qm {
namespace {

constexpr std::size_t kIndent = 4;  // spaces for each nesting level

// The shortest digits that read back as the same number; an exponent where "%.16g" has one.
std::string doubleText(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  char text[64];
  const auto scientific = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific);
  const std::string_view digits(text, static_cast<std::size_t>(scientific.ptr - text));
  const std::size_t mark = digits.find('e');
  int exponent = 0;
  const char* number = text + mark + (digits[mark + 1] == '+' ? 2 : 1);
  std::from_chars(number, scientific.ptr, exponent);
  if (exponent < -4 || exponent >= 16) return std::string(digits);
  const auto fixed = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed);
  return {text, fixed.ptr};
}

void appendEscaped(std::string& out, char16_t unit) {
  char text[8];
  const int length = std::snprintf(text, sizeof text, "\\U%04x", static_cast<unsigned>(unit));
  out.append(text, static_cast<std::size_t>(length));
}

void appendControl(std::string& out, char32_t control) {
  static constexpr std::string_view kControls = "\a\b\t\n\v\f\r";
  static constexpr std::string_view kLetters = "abtnvfr";
  const std::size_t known = kControls.find(static_cast<char>(control));
  if (known != std::string_view::npos) {
    out.append({'\\', kLetters[known]});
    return;
  }
  char text[8];
  const int length = std::snprintf(text, sizeof text, "\\%03o", static_cast<unsigned>(control));
  out.append(text, static_cast<std::size_t>(length));
}

void appendQuotedScalar(std::string& out, char32_t scalar) {
  if (scalar == U'"' || scalar == U'\\') {
    out.append({'\\', static_cast<char>(scalar)});
  } else if (scalar < 0x20 || scalar == 0x7f) {
    appendControl(out, scalar);
  } else if (scalar < 0x80) {
    out.push_back(static_cast<char>(scalar));
  } else if (scalar < 0x10000) {
    appendEscaped(out, static_cast<char16_t>(scalar));
  } else {
    appendEscaped(out, static_cast<char16_t>(0xd800 + ((scalar - 0x10000) >> 10)));
    appendEscaped(out, static_cast<char16_t>(0xdc00 + ((scalar - 0x10000) & 0x3ff)));
  }
}

bool isBareWord(std::string_view text) {
  if (text.empty()) return false;
  for (const char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'))) return false;
  return true;
}

// A string as a key or an element of a collection.
void appendWord(std::string& out, std::string_view text) {
  if (isBareWord(text)) {
    out.append(text);
    return;
  }
  out.push_back('"');
  for (std::size_t i = 0; i < text.size();) {
    const DecodedScalar decoded = decodeUTF8(text, i);
    appendQuotedScalar(out, decoded.scalar);
    i += decoded.length;
  }
  out.push_back('"');
}

void appendIndent(std::string& out, std::size_t level) {
  out.append(kIndent * level, ' ');
}

void appendCollection(std::string& out, const Dictionary& dictionary, std::size_t level);
void appendCollection(std::string& out, const Array& array, std::size_t level);

// A value inside a collection of the level.
void appendElement(std::string& out, const Value& value, std::size_t level) {
  if (const auto* dictionary = value.as<Dictionary>())
    appendCollection(out, *dictionary, level);
  else if (const auto* array = value.as<Array>())
    appendCollection(out, *array, level);
  else if (const auto* text = value.as<std::string>())
    appendWord(out, *text);
  else if (const auto* data = value.as<Data>())
    out.append(description(*data));
  else
    appendWord(out, value.description());
}

// The level is that of the collection's elements less one: 0 for the outermost. A collection brings its own
// indentation along, in front of its opening mark, wherever that stands.
void appendCollection(std::string& out, const Dictionary& dictionary, std::size_t level) {
  appendIndent(out, level);
  out.append("{\n");
  for (const auto& [key, value] : dictionary) {
    appendIndent(out, level + 1);
    appendWord(out, key);
    out.append(" = ");
    appendElement(out, value, level + 1);
    out.append(";\n");
  }
  appendIndent(out, level);
  out.push_back('}');
}

void appendCollection(std::string& out, const Array& array, std::size_t level) {
  appendIndent(out, level);
  out.append("(\n");
  for (const Value& value : array) {
    if (&value != array.data()) out.append(",\n");
    appendIndent(out, level + 1);
    appendElement(out, value, level + 1);
  }
  if (!array.empty()) out.push_back('\n');
  appendIndent(out, level);
  out.push_back(')');
}

struct Describer {
  std::string operator()(Null) const { return "<null>"; }
  std::string operator()(bool value) const { return value ? "1" : "0"; }
  std::string operator()(std::int64_t value) const { return std::to_string(value); }
  std::string operator()(std::uint64_t value) const { return std::to_string(value); }
  std::string operator()(double value) const { return doubleText(value); }
  std::string operator()(const std::string& value) const { return value; }
  std::string operator()(const ErrorPtr& error) const { return error->description(); }
  std::string operator()(const ObjectPtr& object) const { return object->description(); }
  template <class T>
  std::string operator()(const T& value) const {
    return qm::description(value);
  }
};

struct IntegerConverter {
  std::int64_t operator()(bool value) const { return value ? 1 : 0; }
  std::int64_t operator()(std::int64_t value) const { return value; }
  std::int64_t operator()(std::uint64_t value) const { return static_cast<std::int64_t>(value); }
  std::int64_t operator()(double value) const {
    constexpr double kBound = 9223372036854775808.0;  // 2^63
    return value >= -kBound && value < kBound ? static_cast<std::int64_t>(value) : 0;
  }
  template <class T>
  std::int64_t operator()(const T&) const {
    return 0;
  }
};

}  // namespace

Date Date::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count()};
}

Value::Value(ErrorPtr error) {
  if (error != nullptr) storage_ = std::move(error);
}

Value::Value(ObjectPtr object) {
  if (object != nullptr) storage_ = std::move(object);
}

std::int64_t Value::integerValue() const {
  return std::visit(IntegerConverter(), storage_);
}

std::string Value::description() const {
  return std::visit(Describer(), storage_);
}

bool operator==(const Value& a, const Value& b) {
  if (a.storage_.index() != b.storage_.index()) return false;
  if (const auto* error = a.as<ErrorPtr>()) return **error == **b.as<ErrorPtr>();
  if (const auto* object = a.as<ObjectPtr>()) return (*object)->isEqual(**b.as<ObjectPtr>());
  return a.storage_ == b.storage_;
}

std::string description(const Dictionary& dictionary) {
  std::string text;
  appendCollection(text, dictionary, 0);
  return text;
}

std::string description(const Array& array) {
  std::string text;
  appendCollection(text, array, 0);
  return text;
}

std::string description(const Data& data) {
  constexpr std::size_t kShownWhole = 24;
  std::string text = "{length = " + std::to_string(data.length()) + ", bytes = 0x";
  if (data.length() <= kShownWhole) return text + hexadecimal(data.bytes(), data.length()) + "}";
  const auto group = [](const std::uint8_t* bytes) { return hexadecimal(bytes, 4) + " "; };
  for (std::size_t i = 0; i < 16; i += 4) text += group(data.bytes() + i);
  text += "... ";
  for (std::size_t i = 8; i > 0; i -= 4) text += group(data.bytes() + data.length() - i);
  return text + "}";
}

std::string description(Date date) {
  using namespace std::chrono;
  const sys_time<nanoseconds> time{nanoseconds(date.nanosecondsSince1970)};
  const sys_days day = floor<days>(time);
  const year_month_day calendar(day);
  const hh_mm_ss clock(floor<seconds>(time) - day);
  char text[64];
  const int length =
      std::snprintf(text, sizeof text, "%04d-%02u-%02u %02d:%02d:%02d +0000",
                    static_cast<int>(calendar.year()), static_cast<unsigned>(calendar.month()),
                    static_cast<unsigned>(calendar.day()), static_cast<int>(clock.hours().count()),
                    static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()));
  return {text, static_cast<std::size_t>(length)};
}

std::string description(const UUID& uuid) {
  std::string text = hexadecimal(uuid.bytes.data(), uuid.bytes.size());
  for (char& c : text)
    if (c >= 'a') c = static_cast<char>(c - 'a' + 'A');
  for (const std::size_t place : {20U, 16U, 12U, 8U}) text.insert(place, 1, '-');
  return text;
}

const Value* find(const Dictionary& dictionary, std::string_view key) {
  const auto found = dictionary.find(key);
  return found == dictionary.end() ? nullptr : &found->second;
}

}  // namespace qm
