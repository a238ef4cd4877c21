// Records that travel in remote calls by their class name and their named fields. What a receiver does not
// allow it does not make: a class is decoded only where the interface of the call names it, at every depth.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/object.hpp"
#include "foundation/value.hpp"
#include "platform/url.hpp"
#include "platform/xpc.hpp"

namespace qm {

struct RecordClass;

// A class that may be decoded. The names of the classes that need no record: NSString, NSNumber (booleans,
// integers, doubles), NSData, NSDate, NSUUID, NSNull, NSArray, NSDictionary, NSError, NSURL,
// NSXPCListenerEndpoint.
struct CodedClass {
  std::string_view name;
  const RecordClass* record = nullptr;  // for a class of the product's own; lives for ever
};
using CodedClasses = std::vector<CodedClass>;

// NSString, NSNumber, NSData, NSDate, NSArray, NSDictionary: what a collection may hold when nothing else is
// said.
const CodedClasses& propertyListClasses();

enum class FieldCoding : std::uint8_t { boolean, integer, object };

struct RecordField {
  std::string_view key;
  FieldCoding coding;
  CodedClasses classes;  // of an object field, for the object itself and all that it holds
  // The one class that the record takes for the object itself, whatever `classes` says; empty: any.
  std::string_view objectClass{};
};

// What a record's class says about it; one per class, made once. coded_record.hpp makes one from a list of
// members.
struct RecordClass {
  std::string name;
  std::vector<RecordField> fields;
  // The record with these fields, each of its coding and its classes; a missing one is absent. Never null.
  ObjectPtr (*make)(const Dictionary& fields);
};

class Record : public Object {
 public:
  virtual const RecordClass& recordClass() const = 0;
  // The fields that are not nil: booleans as bool, integers signed or unsigned.
  virtual Dictionary fields() const = 0;

  std::string className() const override { return recordClass().name; }
  std::string description() const override;
  bool isEqual(const Object& other) const override;
};

// A URL as an object in a value.
class URLObject final : public Object {
 public:
  explicit URLObject(URL url) : url_(std::move(url)) {}
  const URL& url() const { return url_; }
  std::string className() const override { return "NSURL"; }
  std::string description() const override { return url_.description(); }
  bool isEqual(const Object& other) const override;

 private:
  const URL url_;
};

// An endpoint as an object in a value. Two are equal when they lead to the same listener.
class EndpointObject final : public Object {
 public:
  explicit EndpointObject(XPCEndpoint endpoint) : endpoint_(std::move(endpoint)) {}
  const XPCEndpoint& endpoint() const { return endpoint_; }
  std::string className() const override { return "NSXPCListenerEndpoint"; }
  std::string description() const override { return endpoint_.description(); }
  bool isEqual(const Object& other) const override;

 private:
  const XPCEndpoint endpoint_;
};

// The class name of a value, as decoding tests it; "NSNull" for null.
std::string codedClassName(const Value& value);

}  // namespace qm
