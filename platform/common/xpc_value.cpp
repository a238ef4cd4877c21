// Plain values to objects and back.
#include <type_traits>

#include "foundation/error.hpp"
#include "platform/xpc.hpp"

namespace qm {
namespace {

XPCObject objectFromDictionary(const Dictionary& dictionary) {
  XPCDictionary result = XPCDictionary::create();
  for (const auto& [key, value] : dictionary) result.setValue(key, xpcObjectFromValue(value));
  return result;
}

XPCObject objectFromArray(const Array& array) {
  XPCArray result = XPCArray::create();
  for (const Value& value : array) result.append(xpcObjectFromValue(value));
  return result;
}

XPCObject objectFromError(const Error& error) {
  XPCDictionary result = XPCDictionary::create();
  result.setString("domain", error.domain());
  result.setInt64("code", error.code());
  result.setValue("userInfo", objectFromDictionary(error.userInfo()));
  return result;
}

bool hasValue(const XPCObject& object) {
  switch (object.type()) {
    case XPCType::fileDescriptor:
    case XPCType::endpoint:
    case XPCType::connection:
      return false;
    default:
      return true;
  }
}

Dictionary dictionaryFrom(const XPCDictionary& object) {
  Dictionary result;
  object.apply([&](std::string_view key, const XPCObject& value) {
    if (hasValue(value)) result.emplace(key, valueFromXPCObject(value));
    return true;
  });
  return result;
}

Array arrayFrom(const XPCArray& object) {
  Array result;
  result.reserve(object.count());
  for (std::size_t i = 0; i < object.count(); ++i) result.push_back(valueFromXPCObject(object.value(i)));
  return result;
}

}  // namespace

XPCObject xpcObjectFromValue(const Value& value) {
  return std::visit(
      [](const auto& content) -> XPCObject {
        using Content = std::remove_cvref_t<decltype(content)>;
        if constexpr (std::is_same_v<Content, Null>)
          return XPCObject::null();
        else if constexpr (std::is_same_v<Content, bool>)
          return XPCObject::boolean(content);
        else if constexpr (std::is_same_v<Content, std::int64_t>)
          return XPCObject::int64(content);
        else if constexpr (std::is_same_v<Content, std::uint64_t>)
          return XPCObject::uint64(content);
        else if constexpr (std::is_same_v<Content, double>)
          return XPCObject::real(content);
        else if constexpr (std::is_same_v<Content, std::string>)
          return XPCObject::string(content);
        else if constexpr (std::is_same_v<Content, Data>)
          return XPCObject::data(content.bytes(), content.length());
        else if constexpr (std::is_same_v<Content, Date>)
          return XPCObject::date(content);
        else if constexpr (std::is_same_v<Content, UUID>)
          return XPCObject::uuid(content);
        else if constexpr (std::is_same_v<Content, Array>)
          return objectFromArray(content);
        else if constexpr (std::is_same_v<Content, Dictionary>)
          return objectFromDictionary(content);
        else if constexpr (std::is_same_v<Content, ObjectPtr>)
          return XPCObject::null();
        else
          return objectFromError(*content);
      },
      value.storage());
}

Value valueFromXPCObject(const XPCObject& object) {
  if (!object) return {};
  switch (object.type()) {
    case XPCType::boolean:
      return object.boolValue();
    case XPCType::int64:
      return object.int64Value();
    case XPCType::uint64:
      return object.uint64Value();
    case XPCType::real:
      return object.realValue();
    case XPCType::date:
      return object.dateValue();
    case XPCType::data:
      return *object.dataValue();
    case XPCType::string:
      return *object.stringValue();
    case XPCType::uuid:
      return *object.uuidValue();
    case XPCType::array:
      return arrayFrom(object.asArray());
    case XPCType::dictionary:
      return dictionaryFrom(object.asDictionary());
    case XPCType::error:
      return Dictionary{{"XPCErrorDescription", xpcErrorDescription(object)}};
    case XPCType::null:
    case XPCType::fileDescriptor:
    case XPCType::endpoint:
    case XPCType::connection:
      break;
  }
  return {};
}

}  // namespace qm
