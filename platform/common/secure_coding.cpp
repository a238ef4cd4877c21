#include "platform/secure_coding.hpp"

#include <type_traits>

#include "foundation/error.hpp"
#include "foundation/object_description.hpp"

namespace qm {

const CodedClasses& propertyListClasses() {
  static const CodedClasses& classes =
      *new CodedClasses{{"NSString"}, {"NSNumber"}, {"NSData"}, {"NSDate"}, {"NSArray"}, {"NSDictionary"}};
  return classes;
}

std::string Record::description() const {
  return objectDescription(className(), this);
}

bool Record::isEqual(const Object& other) const {
  const auto* record = dynamic_cast<const Record*>(&other);
  return record != nullptr && record->className() == className() && record->fields() == fields();
}

bool URLObject::isEqual(const Object& other) const {
  const auto* its = dynamic_cast<const URLObject*>(&other);
  return its != nullptr && its->url_.absoluteString() == url_.absoluteString();
}

bool EndpointObject::isEqual(const Object& other) const {
  const auto* its = dynamic_cast<const EndpointObject*>(&other);
  return its != nullptr && its->endpoint_ == endpoint_;
}

std::string codedClassName(const Value& value) {
  return std::visit(
      [](const auto& content) -> std::string {
        using Content = std::remove_cvref_t<decltype(content)>;
        if constexpr (std::is_same_v<Content, Null>)
          return "NSNull";
        else if constexpr (std::is_arithmetic_v<Content>)
          return "NSNumber";
        else if constexpr (std::is_same_v<Content, std::string>)
          return "NSString";
        else if constexpr (std::is_same_v<Content, Data>)
          return "NSData";
        else if constexpr (std::is_same_v<Content, Date>)
          return "NSDate";
        else if constexpr (std::is_same_v<Content, UUID>)
          return "NSUUID";
        else if constexpr (std::is_same_v<Content, Array>)
          return "NSArray";
        else if constexpr (std::is_same_v<Content, Dictionary>)
          return "NSDictionary";
        else if constexpr (std::is_same_v<Content, ErrorPtr>)
          return "NSError";
        else
          return content->className();
      },
      value.storage());
}

}  // namespace qm
