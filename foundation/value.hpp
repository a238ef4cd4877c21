// The values that records, error infos, property lists and metadata are made of: the counterpart of the
// property-list classes plus null, uuid, error and objects of other classes. Used by every floor. Plain
// values, freely copied.
#pragma once

#include <array>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "foundation/object.hpp"

namespace qm {

class Error;
class Value;

// Null when there is no error.
using ErrorPtr = std::shared_ptr<const Error>;

using Array = std::vector<Value>;
// Ordered by the bytes of the key, which is also the order of its description.
using Dictionary = std::map<std::string, Value, std::less<>>;

struct Null {
  friend bool operator==(Null, Null) = default;
};

// Bytes. A type of its own, so that they are never taken for text.
class Data {
 public:
  Data() = default;
  explicit Data(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}
  Data(const void* bytes, std::size_t length)
      : bytes_(static_cast<const std::uint8_t*>(bytes), static_cast<const std::uint8_t*>(bytes) + length) {}

  const std::uint8_t* bytes() const { return bytes_.data(); }
  std::size_t length() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }
  const std::vector<std::uint8_t>& vector() const { return bytes_; }

  friend bool operator==(const Data&, const Data&) = default;

 private:
  std::vector<std::uint8_t> bytes_;
};

// A point in time.
struct Date {
  std::int64_t nanosecondsSince1970 = 0;  // UTC; negative before 1970

  static Date now();
  friend auto operator<=>(const Date&, const Date&) = default;
};

struct UUID {
  std::array<std::uint8_t, 16> bytes{};
  friend bool operator==(const UUID&, const UUID&) = default;
};

class Value {
 public:
  using Storage = std::variant<Null, bool, std::int64_t, std::uint64_t, double, std::string, Data, Date, UUID,
                               Array, Dictionary, ErrorPtr, ObjectPtr>;

  Value() = default;
  Value(Null) {}
  template <std::same_as<bool> B>
  Value(B value) : storage_(value) {}
  template <std::integral I>
  requires(!std::same_as<I, bool> && std::signed_integral<I>) Value(I value)
      : storage_(static_cast<std::int64_t>(value)) {}
  template <std::integral I>
  requires(!std::same_as<I, bool> && std::unsigned_integral<I>) Value(I value)
      : storage_(static_cast<std::uint64_t>(value)) {}
  template <std::floating_point F>
  Value(F value) : storage_(static_cast<double>(value)) {}
  Value(std::string value) : storage_(std::move(value)) {}
  Value(std::string_view value) : storage_(std::string(value)) {}
  Value(const char* value) : storage_(std::string(value)) {}
  Value(Data value) : storage_(std::move(value)) {}
  Value(Date value) : storage_(value) {}
  Value(UUID value) : storage_(value) {}
  Value(Array value) : storage_(std::move(value)) {}
  Value(Dictionary value) : storage_(std::move(value)) {}
  // A null pointer becomes null.
  Value(ErrorPtr error);
  Value(ObjectPtr object);
  template <std::derived_from<Object> T>
  Value(std::shared_ptr<const T> object) : Value(ObjectPtr(std::move(object))) {}

  const Storage& storage() const { return storage_; }
  bool isNull() const { return std::holds_alternative<Null>(storage_); }

  // The held alternative, or a null pointer when the value is of another type.
  template <class T>
  const T* as() const {
    return std::get_if<T>(&storage_);
  }
  template <class T>
  T* as() {
    return std::get_if<T>(&storage_);
  }

  // The value of any of the number types and bool, converted; 0 for others and for doubles out of range.
  std::int64_t integerValue() const;

  // What `%@` prints: a string raw, numbers in decimal (booleans 1 and 0, doubles in their shortest text that
  // reads back the same), collections in the old-style property-list layout, at nesting level 0.
  std::string description() const;

  // Same type and same content; int64 1, uint64 1 and true are three different values. Errors compare by
  // domain, code and user info, objects by isEqual.
  friend bool operator==(const Value& a, const Value& b);

 private:
  Storage storage_;
};

// The old-style property-list text of a collection: four spaces a level, keys ascending, strings quoted
// unless they are ASCII letters and digits only.
std::string description(const Dictionary& dictionary);
std::string description(const Array& array);
std::string description(const Data& data);  // {length = 5, bytes = 0x68656c6c6f}
std::string description(Date date);         // 2023-10-19 03:12:17 +0000
std::string description(const UUID& uuid);  // upper-case text

// The value under the key, or a null pointer.
const Value* find(const Dictionary& dictionary, std::string_view key);
// The value under the key when it is of type T, else a null pointer.
template <class T>
const T* find(const Dictionary& dictionary, std::string_view key) {
  const Value* value = find(dictionary, key);
  return value == nullptr ? nullptr : value->as<T>();
}

}  // namespace qm
