#include "platform/linux/remote_coder.hpp"

#include <algorithm>
#include <limits>
#include <utility>

#include "foundation/strings.hpp"
#include "platform/common/remote_core.hpp"
#include "platform/linux/xpc_limits.hpp"

namespace qm::remote {
namespace {

constexpr std::string_view kSelectorKey = "selector";
constexpr std::string_view kArgumentsKey = "arguments";
constexpr std::string_view kReplyKey = "reply";
constexpr std::string_view kClassKey = "class";
constexpr std::string_view kEntriesKey = "entries";
constexpr std::string_view kDomainKey = "domain";
constexpr std::string_view kCodeKey = "code";
constexpr std::string_view kUserInfoKey = "userInfo";
constexpr std::string_view kStringKey = "string";
constexpr std::string_view kFieldsKey = "fields";
// The key that a collection's elements have for a keyed archiver.
constexpr std::string_view kObjectsKey = "NS.objects";

constexpr std::size_t kShownBytes = 128;

ErrorPtr codingError(std::int64_t code, std::string text) {
  return makeError(kCocoaErrorDomain, code, {{kDebugDescriptionKey, std::move(text)}});
}

std::string argumentKey(std::size_t index) {
  return "argument " + std::to_string(index);
}

std::string inQuotes(std::string_view text) {
  return "'" + shownText(text) + "'";
}

bool hasNul(std::string_view text) {
  return text.find('\0') != std::string_view::npos;
}

class Encoder {
 public:
  explicit Encoder(ErrorPtr* error) : error_(error) {}

  std::optional<XPCArray> arguments(const std::vector<RemoteParameter>& parameters, const Array& values) {
    if (values.size() != parameters.size()) {
      refuse("call with " + std::to_string(values.size()) + " arguments instead of " +
             std::to_string(parameters.size()));
      return std::nullopt;
    }
    XPCArray result = XPCArray::create();
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (!fits(parameters[i].type, values[i])) {
        refuse(argumentKey(i) + " is of another type than the interface says");
        return std::nullopt;
      }
      result.append(encode(values[i], 0));
      if (failed_) return std::nullopt;
    }
    return result;
  }

 private:
  XPCObject refuse(std::string text) {
    failed_ = true;
    setError(error_, codingError(kCoderReadCorruptError, std::move(text)));
    return XPCObject::null();
  }

  XPCObject encode(const Value& value, std::size_t depth) {
    if (failed_) return XPCObject::null();
    if (depth > xpc::kMaximumDepth) return refuse("nested too deep");
    if (const auto* text = value.as<std::string>())
      return hasNul(*text) ? refuse("text with a NUL") : XPCObject::string(*text);
    if (const auto* array = value.as<Array>()) return encodeArray(*array, depth);
    if (const auto* dictionary = value.as<Dictionary>())
      return coded("NSDictionary", kEntriesKey, entries(*dictionary, depth));
    if (const auto* error = value.as<ErrorPtr>()) return encodeError(**error, depth);
    if (const auto* object = value.as<ObjectPtr>()) return encodeObject(**object, depth);
    return xpcObjectFromValue(value);
  }

  XPCObject encodeArray(const Array& array, std::size_t depth) {
    XPCArray result = XPCArray::create();
    for (const Value& value : array) result.append(encode(value, depth + 1));
    return result;
  }

  XPCDictionary entries(const Dictionary& dictionary, std::size_t depth) {
    XPCDictionary result = XPCDictionary::create();
    for (const auto& [key, value] : dictionary) {
      if (hasNul(key)) refuse("key with a NUL");
      result.setValue(key, encode(value, depth + 1));
    }
    return result;
  }

  static XPCDictionary coded(std::string_view className, std::string_view key, const XPCObject& content) {
    XPCDictionary result = XPCDictionary::create();
    result.setString(kClassKey, className);
    result.setValue(key, content);
    return result;
  }

  XPCObject encodeError(const Error& error, std::size_t depth) {
    if (hasNul(error.domain())) return refuse("text with a NUL");
    XPCDictionary result = coded("NSError", kUserInfoKey, entries(error.userInfo(), depth));
    result.setString(kDomainKey, error.domain());
    result.setInt64(kCodeKey, error.code());
    return result;
  }

  XPCObject encodeObject(const Object& object, std::size_t depth) {
    if (const auto* endpoint = dynamic_cast<const EndpointObject*>(&object))
      return endpoint->endpoint() ? XPCObject(endpoint->endpoint()) : XPCObject::null();
    if (const auto* url = dynamic_cast<const URLObject*>(&object))
      return coded("NSURL", kStringKey, XPCObject::string(url->url().absoluteString()));
    if (const auto* record = dynamic_cast<const Record*>(&object))
      return coded(record->className(), kFieldsKey, entries(record->fields(), depth));
    return refuse("class " + inQuotes(object.className()) + " cannot be coded");
  }

  ErrorPtr* const error_;
  bool failed_ = false;
};

// What may stand in a place, and in the collections there.
struct Allowed {
  const CodedClasses& classes;
  const CodedClasses& contents;
};

const CodedClass* findClass(const CodedClasses& classes, std::string_view name) {
  const auto found =
      std::find_if(classes.begin(), classes.end(), [&](const CodedClass& its) { return its.name == name; });
  return found == classes.end() ? nullptr : &*found;
}

// What the user info of an error may hold.
const CodedClasses& userInfoClasses() {
  static const CodedClasses& classes = *new CodedClasses([] {
    CodedClasses result = propertyListClasses();
    result.push_back({.name = "NSError"});
    result.push_back({.name = "NSURL"});
    return result;
  }());
  return classes;
}

// The class of a coded object; empty for a dictionary that names none.
std::string_view classOf(const XPCObject& object) {
  switch (object.type()) {
    case XPCType::null:
      return "NSNull";
    case XPCType::boolean:
    case XPCType::int64:
    case XPCType::uint64:
    case XPCType::real:
      return "NSNumber";
    case XPCType::date:
      return "NSDate";
    case XPCType::data:
      return "NSData";
    case XPCType::string:
      return "NSString";
    case XPCType::uuid:
      return "NSUUID";
    case XPCType::array:
      return "NSArray";
    case XPCType::endpoint:
      return "NSXPCListenerEndpoint";
    case XPCType::fileDescriptor:
      return "NSFileHandle";
    case XPCType::connection:
    case XPCType::error:
      return {};
    case XPCType::dictionary:
      break;
  }
  const XPCObject name = object.asDictionary().value(kClassKey);
  const std::string* text = name.stringValue();
  // Valid as long as the object: the name is in it.
  return text == nullptr ? std::string_view() : std::string_view(*text);
}

class Decoder {
 public:
  explicit Decoder(ErrorPtr* error) : error_(error) {}

  std::optional<Value> argument(const RemoteParameter& parameter, const XPCObject& object,
                                const std::string& key) {
    switch (parameter.type) {
      case RemoteType::boolean:
        return scalar(object, XPCType::boolean, "a boolean", key);
      case RemoteType::int64:
        return scalar(object, XPCType::int64, "an int64", key);
      case RemoteType::uint64:
        return scalar(object, XPCType::uint64, "a uint64", key);
      case RemoteType::uint32:
        if (object.uint64Value() > std::numeric_limits<std::uint32_t>::max())
          return corrupt("value for key " + inQuotes(key) + " does not fit into 32 bits");
        return scalar(object, XPCType::uint64, "a uint64", key);
      case RemoteType::real:
        return scalar(object, XPCType::real, "a double", key);
      case RemoteType::object:
        break;
    }
    if (object.type() == XPCType::null) return Value();  // nil
    if (!parameter.objectClass.empty() && classOf(object) != parameter.objectClass)
      return unexpected(object, {CodedClass{.name = parameter.objectClass}}, key);
    return decode(object,
                  {parameter.classes, parameter.hasOwnContents ? parameter.classes : propertyListClasses()},
                  key);
  }

  std::nullopt_t missing(const std::string& what) {
    setError(error_, codingError(kCoderValueNotFoundError, what));
    return std::nullopt;
  }
  std::nullopt_t corrupt(std::string text) {
    setError(error_, codingError(kCoderReadCorruptError, std::move(text)));
    return std::nullopt;
  }
  // The value of the type under the key, or a null object.
  XPCObject required(const XPCDictionary& dictionary, std::string_view key, XPCType type) {
    XPCObject value = dictionary.value(key);
    if (!value) {
      missing("no value for key " + inQuotes(key));
      return {};
    }
    if (value.type() == type) return value;
    corrupt("value for key " + inQuotes(key) + " is of another type");
    return {};
  }
  bool hasOnly(const XPCDictionary& dictionary, std::size_t count) {
    if (dictionary.count() == count) return true;
    corrupt("unknown keys beside those of " + inQuotes(classOf(dictionary)));
    return false;
  }

 private:
  std::optional<Value> scalar(const XPCObject& object, XPCType type, const char* name,
                              const std::string& key) {
    if (object.type() == type) return valueFromXPCObject(object);
    return corrupt("value for key " + inQuotes(key) + " is not " + name);
  }

  std::nullopt_t unexpected(const XPCObject& object, const CodedClasses& allowed, std::string_view key) {
    std::string names;
    for (const CodedClass& its : allowed) names += (names.empty() ? "" : ", ") + std::string(its.name);
    return corrupt("value for key " + inQuotes(key) + " was of unexpected class " +
                   inQuotes(classOf(object)) + ". Allowed classes are '{(" + names + ")}'.");
  }

  std::optional<Value> decode(const XPCObject& object, const Allowed& allowed, std::string_view key) {
    const CodedClass* its = findClass(allowed.classes, classOf(object));
    if (its == nullptr) return unexpected(object, allowed.classes, key);
    if (const XPCDictionary dictionary = object.asDictionary())
      return decodeCoded(dictionary, *its, allowed.contents);
    if (const XPCArray array = object.asArray()) return decodeArray(array, allowed.contents);
    if (const XPCEndpoint endpoint = XPCEndpoint::from(object))
      return Value(std::make_shared<const EndpointObject>(endpoint));
    if (object.type() == XPCType::fileDescriptor) return unexpected(object, allowed.classes, key);
    return valueFromXPCObject(object);
  }

  std::optional<Value> decodeArray(const XPCArray& array, const CodedClasses& contents) {
    Array result;
    result.reserve(array.count());
    for (std::size_t i = 0; i < array.count(); ++i) {
      std::optional<Value> value = decode(array.value(i), {contents, contents}, kObjectsKey);
      if (!value) return std::nullopt;
      result.push_back(std::move(*value));
    }
    return result;
  }

  std::optional<Value> decodeCoded(const XPCDictionary& coded, const CodedClass& its,
                                   const CodedClasses& contents) {
    if (its.record != nullptr) return decodeRecord(coded, *its.record);
    if (its.name == "NSDictionary") return decodeDictionary(coded, contents);
    if (its.name == "NSError") return decodeError(coded);
    if (its.name == "NSURL") return decodeURL(coded);
    return corrupt("class " + inQuotes(its.name) + " is not coded as a dictionary");
  }

  std::optional<Dictionary> decodeEntries(const XPCObject& entries, const CodedClasses& contents) {
    std::optional<Dictionary> result(std::in_place);
    entries.asDictionary().apply([&](std::string_view key, const XPCObject& object) {
      std::optional<Value> value = decode(object, {contents, contents}, kObjectsKey);
      if (value)
        result->emplace(key, std::move(*value));
      else
        result.reset();
      return result.has_value();
    });
    return result;
  }

  std::optional<Value> decodeDictionary(const XPCDictionary& coded, const CodedClasses& contents) {
    const XPCObject entries = required(coded, kEntriesKey, XPCType::dictionary);
    if (!entries || !hasOnly(coded, 2)) return std::nullopt;
    std::optional<Dictionary> result = decodeEntries(entries, contents);
    if (!result) return std::nullopt;
    return std::move(*result);
  }

  std::optional<Value> decodeError(const XPCDictionary& coded) {
    const XPCObject domain = required(coded, kDomainKey, XPCType::string);
    if (!domain) return std::nullopt;
    const XPCObject code = required(coded, kCodeKey, XPCType::int64);
    if (!code) return std::nullopt;
    const XPCObject userInfo = required(coded, kUserInfoKey, XPCType::dictionary);
    if (!userInfo || !hasOnly(coded, 4)) return std::nullopt;
    std::optional<Dictionary> entries = decodeEntries(userInfo, userInfoClasses());
    if (!entries) return std::nullopt;
    return makeError(*domain.stringValue(), code.int64Value(), std::move(*entries));
  }

  std::optional<Value> decodeURL(const XPCDictionary& coded) {
    const XPCObject text = required(coded, kStringKey, XPCType::string);
    if (!text || !hasOnly(coded, 2)) return std::nullopt;
    std::optional<URL> url = URL::create(*text.stringValue());
    if (!url) return corrupt("no URL: " + inQuotes(*text.stringValue()));
    return Value(std::make_shared<const URLObject>(std::move(*url)));
  }

  // Fields that the class does not know are left alone: a later version of the peer may have them.
  std::optional<Value> decodeRecord(const XPCDictionary& coded, const RecordClass& record) {
    const XPCObject fields = required(coded, kFieldsKey, XPCType::dictionary);
    if (!fields || !hasOnly(coded, 2)) return std::nullopt;
    Dictionary decoded;
    for (const RecordField& field : record.fields) {
      const XPCObject object = fields.asDictionary().value(field.key);
      if (!object || (field.coding == FieldCoding::object && object.type() == XPCType::null)) continue;
      std::optional<Value> value = decodeField(field, object);
      if (!value) return std::nullopt;
      decoded.emplace(field.key, std::move(*value));
    }
    return Value(record.make(decoded));
  }

  std::optional<Value> decodeField(const RecordField& field, const XPCObject& object) {
    switch (field.coding) {
      case FieldCoding::boolean:
        return scalar(object, XPCType::boolean, "a boolean", std::string(field.key));
      case FieldCoding::integer:
        if (object.type() == XPCType::uint64) return object.uint64Value();
        return scalar(object, XPCType::int64, "an integer", std::string(field.key));
      case FieldCoding::object:
        break;
    }
    if (!field.objectClass.empty() && classOf(object) != field.objectClass)
      return unexpected(object, {CodedClass{.name = field.objectClass}}, field.key);
    return decode(object, {field.classes, field.classes}, field.key);
  }

  ErrorPtr* const error_;
};

}  // namespace

std::optional<XPCArray> encodeArguments(const std::vector<RemoteParameter>& parameters, const Array& values,
                                        ErrorPtr* error) {
  return Encoder(error).arguments(parameters, values);
}

std::optional<Array> decodeArguments(const std::vector<RemoteParameter>& parameters, const XPCObject& coded,
                                     ErrorPtr* error) {
  Decoder decoder(error);
  const XPCArray arguments = coded.asArray();
  if (!arguments) return decoder.corrupt("arguments that are no array");
  const std::string counts =
      std::to_string(arguments.count()) + " arguments instead of " + std::to_string(parameters.size());
  if (arguments.count() < parameters.size()) return decoder.missing(counts);
  if (arguments.count() > parameters.size()) return decoder.corrupt(counts);
  Array result;
  result.reserve(parameters.size());
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    std::optional<Value> value = decoder.argument(parameters[i], arguments.value(i), argumentKey(i));
    if (!value) return std::nullopt;
    result.push_back(std::move(*value));
  }
  return result;
}

XPCDictionary encodeCall(std::string_view selector, const XPCArray& arguments) {
  XPCDictionary message = XPCDictionary::create();
  message.setString(kSelectorKey, selector);
  message.setValue(kArgumentsKey, arguments);
  return message;
}

std::optional<CodedCall> decodeCall(const XPCDictionary& message, ErrorPtr* error) {
  Decoder decoder(error);
  const XPCObject selector = decoder.required(message, kSelectorKey, XPCType::string);
  if (!selector) return std::nullopt;
  const XPCObject arguments = decoder.required(message, kArgumentsKey, XPCType::array);
  if (!arguments) return std::nullopt;
  if (message.count() != 2) return decoder.corrupt("unknown keys in the call");
  return CodedCall{.selector = *selector.stringValue(), .arguments = arguments};
}

void encodeReply(XPCDictionary& reply, const XPCArray& arguments) {
  reply.setValue(kReplyKey, arguments);
}

std::optional<XPCObject> decodeReply(const XPCDictionary& reply, ErrorPtr* error) {
  Decoder decoder(error);
  const XPCObject arguments = decoder.required(reply, kReplyKey, XPCType::array);
  if (!arguments) return std::nullopt;
  if (reply.count() != 1) return decoder.corrupt("unknown keys in the reply");
  return arguments;
}

std::string shownText(std::string_view text) {
  std::string result(text.substr(0, kShownBytes));
  std::replace_if(
      result.begin(), result.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
  return text.size() <= kShownBytes ? result : lossyUTF8(result) + "…";
}

}  // namespace qm::remote
