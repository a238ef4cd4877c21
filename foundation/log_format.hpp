// The checking and rendering of log formats; included by foundation/log.hpp only.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "foundation/value.hpp"

namespace qm::log_format {

enum class Privacy : std::uint8_t { automatic, isPublic, isPrivate };

// One placeholder, or a stretch of literal text before it.
struct Placeholder {
  char conversion = 0;      // '@', 's', 'd', 'u', 'f', 'p', 'x'; 0: the end of the format
  unsigned char bytes = 4;  // 4 for %d and %u, 8 for their l, ll and z forms
  int precision = -1;       // of %.2f; -1: none given
  Privacy privacy = Privacy::automatic;
  std::size_t literalLength = 0;  // text in front of it, "%%" still doubled
  std::size_t next = 0;           // where to go on reading
  bool wellFormed = true;
};

// Reads from the position up to and including the next placeholder. A 0 conversion ends the format.
constexpr Placeholder nextPlaceholder(std::string_view format, std::size_t position) {
  Placeholder result;
  std::size_t i = position;
  while (i < format.size()) {
    if (format[i] != '%') {
      ++i;
    } else if (i + 1 < format.size() && format[i + 1] == '%') {
      i += 2;
    } else {
      break;
    }
  }
  result.literalLength = i - position;
  if (i >= format.size()) {
    result.next = i;
    return result;
  }
  ++i;
  if (format.substr(i).starts_with("{public}")) {
    result.privacy = Privacy::isPublic;
    i += 8;
  } else if (format.substr(i).starts_with("{private}")) {
    result.privacy = Privacy::isPrivate;
    i += 9;
  }
  if (i < format.size() && format[i] == '.') {
    result.precision = 0;
    for (++i; i < format.size() && format[i] >= '0' && format[i] <= '9'; ++i)
      result.precision = result.precision * 10 + (format[i] - '0');
  }
  if (format.substr(i).starts_with("ll")) {
    result.bytes = 8;
    i += 2;
  } else if (i < format.size() && (format[i] == 'l' || format[i] == 'z')) {
    result.bytes = 8;
    ++i;
  }
  if (i >= format.size()) {
    result.wellFormed = false;
    return result;
  }
  const char c = format[i];
  result.conversion = c == 'i' ? 'd' : c;
  result.wellFormed =
      c == '@' || c == 's' || c == 'd' || c == 'i' || c == 'u' || c == 'f' || c == 'p' || c == 'x';
  if (c == '@' || c == 's' || c == 'p') result.bytes = 8;
  result.next = i + 1;
  return result;
}

// A type with a description() of its own.
template <class T>
concept Described = requires(const T& value) {
  { value.description() } -> std::convertible_to<std::string>;
};

template <class T>
inline constexpr bool isOptional = false;
template <class T>
inline constexpr bool isOptional<std::optional<T>> = true;

template <class T>
inline constexpr bool isPointer = false;
template <class T>
inline constexpr bool isPointer<T*> = true;
template <class T>
inline constexpr bool isPointer<std::shared_ptr<T>> = true;
template <class T>
inline constexpr bool isPointer<std::unique_ptr<T>> = true;

template <class T>
concept CText = std::convertible_to<const T&, std::string_view> || std::same_as<T, const char*> ||
    std::same_as<T, char*> || std::same_as<T, std::nullptr_t>;

template <class T>
constexpr bool isText() {
  if constexpr (isOptional<T>)
    return isText<typename T::value_type>();
  else
    return CText<T>;
}

template <class T>
constexpr bool isObject() {
  if constexpr (isText<T>() || Described<T>)
    return true;
  else if constexpr (isOptional<T>)
    return isObject<typename T::value_type>();
  else if constexpr (isPointer<T>)
    return Described<typename std::pointer_traits<T>::element_type>;
  else
    return requires(const T& value) {
      { qm::description(value) } -> std::convertible_to<std::string>;
    };
}

template <class T>
constexpr bool fits(const Placeholder& placeholder) {
  using Bare = std::remove_cvref_t<T>;
  constexpr bool isNumber = std::integral<Bare> || std::is_enum_v<Bare>;
  constexpr bool isSigned = [] {
    if constexpr (std::is_enum_v<Bare>)
      return std::is_signed_v<std::underlying_type_t<Bare>>;
    else
      return std::is_signed_v<Bare> || std::same_as<Bare, bool>;
  }();
  switch (placeholder.conversion) {
    case '@':
      return isObject<Bare>();
    case 's':
      return isText<Bare>();
    case 'd':
      return isNumber && (isSigned || sizeof(Bare) < placeholder.bytes) && sizeof(Bare) <= placeholder.bytes;
    case 'u':
    case 'x':
      return isNumber && !isSigned && sizeof(Bare) <= placeholder.bytes;
    case 'f':
      return std::floating_point<Bare>;
    case 'p':
      return std::is_pointer_v<Bare>;
    default:
      return false;
  }
}

template <class... Arguments>
struct Types {
  static constexpr bool matches(std::string_view format) {
    std::size_t position = 0;
    const bool all = (fitsNext<Arguments>(format, position) && ...);
    return all && nextPlaceholder(format, position).conversion == 0 &&
           nextPlaceholder(format, position).wellFormed;
  }

 private:
  template <class T>
  static constexpr bool fitsNext(std::string_view format, std::size_t& position) {
    const Placeholder placeholder = nextPlaceholder(format, position);
    position = placeholder.next;
    return placeholder.wellFormed && placeholder.conversion != 0 && fits<T>(placeholder);
  }
};

// Unevaluated: carries the argument types into the check.
template <class... Arguments>
Types<std::decay_t<Arguments>...> typesOf(Arguments&&...);

// One argument, packed for rendering without templates.
struct Argument {
  enum class Kind : std::uint8_t { text, absent, signedNumber, unsignedNumber, real, pointer };
  Kind kind = Kind::absent;
  std::string text;
  std::int64_t signedNumber = 0;
  std::uint64_t unsignedNumber = 0;
  double real = 0;
  const void* pointer = nullptr;
  std::string (*describe)(const void* pointer) = nullptr;  // of an object behind a pointer; %p never calls it
};

// The text of an object, or nothing for nil.
template <class T>
std::optional<std::string> describe(const T& value) {
  if constexpr (std::same_as<T, std::nullptr_t>) {
    return std::nullopt;
  } else if constexpr (isOptional<T>) {
    return value ? describe(*value) : std::nullopt;
  } else if constexpr (std::convertible_to<const T&, const char*>) {
    const char* text = value;
    return text == nullptr ? std::nullopt : std::optional<std::string>(text);
  } else if constexpr (CText<T>) {
    return std::string(std::string_view(value));
  } else if constexpr (isPointer<T>) {
    return value ? std::optional<std::string>(value->description()) : std::nullopt;
  } else if constexpr (requires { static_cast<bool>(value); } && Described<T> && !std::same_as<T, Value>) {
    return value ? std::optional<std::string>(value.description()) : std::nullopt;
  } else if constexpr (Described<T>) {
    return value.description();
  } else {
    return qm::description(value);
  }
}

template <class T>
Argument pack(const T& value) {
  Argument argument;
  if constexpr (std::floating_point<T>) {
    argument.kind = Argument::Kind::real;
    argument.real = static_cast<double>(value);
  } else if constexpr (std::is_enum_v<T>) {
    return pack(static_cast<std::underlying_type_t<T>>(value));
  } else if constexpr (std::integral<T> && (std::signed_integral<T> || std::same_as<T, bool>)) {
    argument.kind = Argument::Kind::signedNumber;
    argument.signedNumber = static_cast<std::int64_t>(value);
    argument.unsignedNumber = static_cast<std::uint64_t>(value);
  } else if constexpr (std::integral<T>) {
    argument.kind = Argument::Kind::unsignedNumber;
    argument.unsignedNumber = static_cast<std::uint64_t>(value);
    argument.signedNumber = static_cast<std::int64_t>(value);
  } else if constexpr (std::is_pointer_v<T> && !CText<T>) {
    argument.kind = Argument::Kind::pointer;
    argument.pointer = value;
    if constexpr (isObject<T>()) {
      argument.describe = [](const void* object) -> std::string {
        return static_cast<const std::remove_pointer_t<T>*>(object)->description();
      };
    }
  } else if (std::optional<std::string> text = describe(value)) {
    argument.kind = Argument::Kind::text;
    argument.text = std::move(*text);
  }
  return argument;
}

// What becomes of the private parts of a line.
enum class PrivateParts : std::uint8_t {
  hidden,  // "<private>" stands in their place
  shown,
  marked,  // as shown, and the line says where they are
};

// A stretch of a line, in bytes.
struct Range {
  std::size_t begin = 0;
  std::size_t end = 0;
};

struct Line {
  std::string text;
  std::vector<Range> privateParts;  // in order; empty unless they are marked
};

// Literal text as it stands, each placeholder filled in order.
Line render(std::string_view format, const Argument* arguments, std::size_t count, PrivateParts privateParts);

}  // namespace qm::log_format
