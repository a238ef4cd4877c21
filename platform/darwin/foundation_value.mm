#include "platform/darwin/foundation_value.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>

#include "foundation/strings.hpp"
#include "platform/darwin/remote_classes.hpp"
#include "platform/darwin/remote_endpoint.hpp"
#include "platform/secure_coding.hpp"

namespace qm {
namespace {

constexpr int kGreatestDepth = 64;
constexpr double kNanosecondsPerSecond = 1e9;

std::optional<Value> convert(id object, OtherObjects others, int depth);

NSDate* objectFrom(Date date) {
  return [NSDate
      dateWithTimeIntervalSince1970:static_cast<double>(date.nanosecondsSince1970) / kNanosecondsPerSecond];
}

NSArray* objectFrom(const Array& array) {
  NSMutableArray* result = [NSMutableArray arrayWithCapacity:array.size()];
  for (const Value& value : array) [result addObject:qm::objectFrom(value)];
  return result;
}

NSDictionary* objectFrom(const Dictionary& dictionary) {
  NSMutableDictionary* result = [NSMutableDictionary dictionaryWithCapacity:dictionary.size()];
  for (const auto& [key, value] : dictionary) [result setObject:qm::objectFrom(value) forKey:stringFrom(key)];
  return result;
}

id objectFrom(const ObjectPtr& object) {
  if (const auto* endpoint = dynamic_cast<const EndpointObject*>(object.get())) {
    const CFTypeRef held = remote::heldEndpoint(endpoint->endpoint());
    return held == nullptr ? [NSNull null] : (__bridge id)held;
  }
  if (const auto* url = dynamic_cast<const URLObject*>(object.get())) {
    NSURL* its = [NSURL URLWithString:stringFrom(url->url().absoluteString()) encodingInvalidCharacters:NO];
    return its == nil ? [NSNull null] : its;
  }
  QMRemoteRecord* its = nil;
  if (const auto record = std::dynamic_pointer_cast<const Record>(object))
    its = remote::objectForRecord(record);
  return its == nil ? [NSNull null] : its;
}

Value fromNumber(NSNumber* number) {
  if (CFGetTypeID((__bridge CFTypeRef)number) == CFBooleanGetTypeID()) return number.boolValue != NO;
  switch (number.objCType[0]) {
    case 'f':
    case 'd':
      return number.doubleValue;
    case 'Q':
    case 'L':
      if (number.unsignedLongLongValue > std::uint64_t{std::numeric_limits<std::int64_t>::max()})
        return std::uint64_t{number.unsignedLongLongValue};
      break;
    default:
      break;
  }
  return std::int64_t{number.longLongValue};
}

// What is further away than 64 bits of nanoseconds reach becomes the last that they do; what is no time,
// which a peer can send, the date 0.
Value fromDate(NSDate* date) {
  constexpr double kLimit = 9.2e18;
  const double nanoseconds = date.timeIntervalSince1970 * kNanosecondsPerSecond;
  if (std::isnan(nanoseconds)) return Date{};
  return Date{static_cast<std::int64_t>(std::clamp(nanoseconds, -kLimit, kLimit))};
}

Value fromUUID(NSUUID* uuid) {
  UUID value;
  [uuid getUUIDBytes:value.bytes.data()];
  return value;
}

std::optional<Value> fromURL(NSURL* url) {
  std::optional<URL> its = URL::create(textFrom(url.absoluteString));
  if (!its) return std::nullopt;
  return Value(std::make_shared<const URLObject>(std::move(*its)));
}

std::optional<Value> fromArray(NSArray* array, OtherObjects others, int depth) {
  Array result;
  result.reserve(array.count);
  for (id member in array) {
    std::optional<Value> value = convert(member, others, depth + 1);
    if (!value) return std::nullopt;
    result.push_back(std::move(*value));
  }
  return result;
}

std::optional<Value> fromDictionary(NSDictionary* dictionary, OtherObjects others, int depth) {
  Dictionary result;
  for (id key in dictionary) {
    const bool isText = [key isKindOfClass:[NSString class]];
    if (!isText && others == OtherObjects::refused) return std::nullopt;
    std::optional<Value> value = convert([dictionary objectForKey:key], others, depth + 1);
    if (!value) return std::nullopt;
    result.insert_or_assign(textFrom(isText ? key : [key description]), std::move(*value));
  }
  return result;
}

// Errors within errors count as depth, too.
ErrorPtr fromError(NSError* error, int depth) {
  std::optional<Value> userInfo = convert(error.userInfo, OtherObjects::described, depth + 1);
  Dictionary* entries = userInfo ? userInfo->as<Dictionary>() : nullptr;
  return makeError(textFrom(error.domain), error.code,
                   entries == nullptr ? Dictionary() : std::move(*entries));
}

// Nothing for an object of another class.
std::optional<Value> convertKnown(id object, OtherObjects others, int depth) {
  if ([object isKindOfClass:[NSString class]]) return textFrom(object);
  if ([object isKindOfClass:[NSNumber class]]) return fromNumber(object);
  if ([object isKindOfClass:[NSDictionary class]]) return fromDictionary(object, others, depth);
  if ([object isKindOfClass:[NSArray class]]) return fromArray(object, others, depth);
  if ([object isKindOfClass:[NSData class]]) {
    NSData* data = object;
    return data.length == 0 ? Data() : Data(data.bytes, data.length);
  }
  if ([object isKindOfClass:[NSDate class]]) return fromDate(object);
  if ([object isKindOfClass:[NSNull class]]) return Value();
  if ([object isKindOfClass:[NSUUID class]]) return fromUUID(object);
  if ([object isKindOfClass:[NSURL class]]) return fromURL(object);
  if ([object isKindOfClass:[NSError class]]) return Value(fromError(object, depth));
  if ([object isKindOfClass:[NSXPCListenerEndpoint class]])
    return Value(std::make_shared<const EndpointObject>(remote::endpointHolding((__bridge CFTypeRef)object)));
  if ([object isKindOfClass:[QMRemoteRecord class]])
    return Value(static_cast<QMRemoteRecord*>(object).record);
  return std::nullopt;
}

std::optional<Value> convert(id object, OtherObjects others, int depth) {
  if (object == nil) return Value();
  std::optional<Value> value = depth > kGreatestDepth ? std::nullopt : convertKnown(object, others, depth);
  if (value || others == OtherObjects::refused) return value;
  return depth > kGreatestDepth ? std::string("...") : textFrom([object description]);
}

}  // namespace

NSString* stringFrom(std::string_view text) {
  const std::string wellFormed = lossyUTF8(text);
  // Unlike NSString's own initialisers this keeps a leading byte-order mark: the text is not a file's.
  constexpr Boolean kIsExternalRepresentation = false;
  const CFStringRef string = CFStringCreateWithBytes(
      nullptr, reinterpret_cast<const UInt8*>(wellFormed.data()), static_cast<CFIndex>(wellFormed.size()),
      kCFStringEncodingUTF8, kIsExternalRepresentation);
  return string == nullptr ? @"" : (__bridge_transfer NSString*)string;
}

std::string textFrom(NSString* string) {
  NSData* bytes = [string dataUsingEncoding:NSUTF8StringEncoding allowLossyConversion:YES];
  return bytes.length == 0 ? std::string() : std::string(static_cast<const char*>(bytes.bytes), bytes.length);
}

id objectFrom(const Value& value) {
  return std::visit(
      [](const auto& content) -> id {
        using Content = std::remove_cvref_t<decltype(content)>;
        if constexpr (std::is_same_v<Content, Null>)
          return [NSNull null];
        else if constexpr (std::is_same_v<Content, bool>)
          return [NSNumber numberWithBool:content];
        else if constexpr (std::is_same_v<Content, std::int64_t>)
          return [NSNumber numberWithLongLong:content];
        else if constexpr (std::is_same_v<Content, std::uint64_t>)
          return [NSNumber numberWithUnsignedLongLong:content];
        else if constexpr (std::is_same_v<Content, double>)
          return [NSNumber numberWithDouble:content];
        else if constexpr (std::is_same_v<Content, std::string>)
          return stringFrom(content);
        else if constexpr (std::is_same_v<Content, Data>)
          return [NSData dataWithBytes:content.bytes() length:content.length()];
        else if constexpr (std::is_same_v<Content, UUID>)
          return [[NSUUID alloc] initWithUUIDBytes:content.bytes.data()];
        else if constexpr (std::is_same_v<Content, ErrorPtr>)
          return objectFrom(*content);
        else
          return objectFrom(content);
      },
      value.storage());
}

NSError* objectFrom(const Error& error) {
  return [NSError errorWithDomain:stringFrom(error.domain())
                             code:error.code()
                         userInfo:objectFrom(error.userInfo())];
}

std::optional<Value> valueFrom(id object, OtherObjects others) {
  return convert(object, others, 0);
}

ErrorPtr errorFrom(NSError* error) {
  return error == nil ? nullptr : fromError(error, 0);
}

}  // namespace qm
