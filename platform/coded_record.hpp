// Records whose fields are plain members. A class lists each key with its member once; coding follows from
// it.
//
//   class Verdict final : public qm::CodedRecord<Verdict> {
//    public:
//     static constexpr std::string_view kClassName = "Verdict";
//     static constexpr auto codedMembers() {
//       return std::tuple(qm::CodedMember("ttl", &Verdict::ttl), qm::CodedMember("name", &Verdict::name));
//     }
//     std::uint64_t ttl = 0;
//     std::optional<std::string> name;
//   };
//
// A member is a bool, an integer, or a std::optional of std::string, URL or Dictionary. Integers travel as
// int64 whatever their width: a larger unsigned one keeps its bits, and a narrow one takes the low bits of
// what arrives. A field that is missing leaves its member as it was made.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "foundation/value.hpp"
#include "platform/secure_coding.hpp"
#include "platform/url.hpp"

namespace qm {

template <class Class, class Member>
struct CodedMember {
  constexpr CodedMember(std::string_view itsKey, Member Class::*itsMember,
                        std::span<const CodedClass> itsContents = {})
      : key(itsKey), member(itsMember), contents(itsContents) {}

  std::string_view key;
  Member Class::*member;
  std::span<const CodedClass> contents;  // of a collection: what it may hold at every depth; lives for ever
};

// How a member travels: its field, the value it becomes (null: none), and the value back.
template <class T>
struct MemberCoding;

template <>
struct MemberCoding<bool> {
  static RecordField field(std::string_view key, std::span<const CodedClass>) {
    return {.key = key, .coding = FieldCoding::boolean, .classes = {}};
  }
  static Value toValue(bool value) { return value; }
  static bool fromValue(const Value& value) { return *value.as<bool>(); }
};

template <std::integral T>
struct MemberCoding<T> {
  static RecordField field(std::string_view key, std::span<const CodedClass>) {
    return {.key = key, .coding = FieldCoding::integer, .classes = {}};
  }
  static Value toValue(T value) { return static_cast<std::int64_t>(value); }
  static T fromValue(const Value& value) {
    const auto* large = value.as<std::uint64_t>();
    return static_cast<T>(large != nullptr ? *large : static_cast<std::uint64_t>(*value.as<std::int64_t>()));
  }
};

template <>
struct MemberCoding<std::optional<std::string>> {
  static RecordField field(std::string_view key, std::span<const CodedClass>) {
    return {.key = key, .coding = FieldCoding::object, .classes = {{"NSString"}}};
  }
  static Value toValue(const std::optional<std::string>& text) { return text ? Value(*text) : Value(); }
  static std::optional<std::string> fromValue(const Value& value) { return *value.as<std::string>(); }
};

template <>
struct MemberCoding<std::optional<URL>> {
  static RecordField field(std::string_view key, std::span<const CodedClass>) {
    return {.key = key, .coding = FieldCoding::object, .classes = {{"NSURL"}}};
  }
  static Value toValue(const std::optional<URL>& url) {
    return url ? Value(std::make_shared<const URLObject>(*url)) : Value();
  }
  static std::optional<URL> fromValue(const Value& value) {
    return static_cast<const URLObject&>(**value.as<ObjectPtr>()).url();
  }
};

template <>
struct MemberCoding<std::optional<Dictionary>> {
  static RecordField field(std::string_view key, std::span<const CodedClass> contents) {
    return {.key = key,
            .coding = FieldCoding::object,
            .classes = CodedClasses(contents.begin(), contents.end()),
            .objectClass = "NSDictionary"};
  }
  static Value toValue(const std::optional<Dictionary>& entries) {
    return entries ? Value(*entries) : Value();
  }
  static std::optional<Dictionary> fromValue(const Value& value) { return *value.as<Dictionary>(); }
};

template <class T>
class CodedRecord : public Record {
 public:
  static const RecordClass& codedClass() {
    static const RecordClass& its = *new RecordClass(makeClass());
    return its;
  }
  const RecordClass& recordClass() const final { return codedClass(); }
  Dictionary fields() const final {
    Dictionary result;
    forEachMember([&]<class Member>(const CodedMember<T, Member>& coded) {
      Value value = MemberCoding<Member>::toValue(static_cast<const T&>(*this).*coded.member);
      if (!value.isNull()) result.emplace(coded.key, std::move(value));
    });
    return result;
  }

 private:
  template <class Visitor>
  static void forEachMember(const Visitor& visitor) {
    std::apply([&](const auto&... members) { (visitor(members), ...); }, T::codedMembers());
  }
  static RecordClass makeClass() {
    RecordClass its{.name = std::string(T::kClassName), .fields = {}, .make = &CodedRecord::make};
    forEachMember([&]<class Member>(const CodedMember<T, Member>& coded) {
      its.fields.push_back(MemberCoding<Member>::field(coded.key, coded.contents));
    });
    return its;
  }
  static ObjectPtr make(const Dictionary& fields) {
    const auto record = std::make_shared<T>();
    forEachMember([&]<class Member>(const CodedMember<T, Member>& coded) {
      if (const Value* value = find(fields, coded.key))
        (*record).*coded.member = MemberCoding<Member>::fromValue(*value);
    });
    return record;
  }
};

}  // namespace qm
