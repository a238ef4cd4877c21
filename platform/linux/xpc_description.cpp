// XPCObject::description: the layout that xpc_copy_description has on macOS, as far as it was observed.
#include <cinttypes>
#include <cstdio>

#include "platform/linux/xpc_object.hpp"

namespace qm {
namespace {

using namespace xpc;

// Deep enough for every message that can be received.
constexpr std::size_t kMaximumDescribedDepth = 64;
constexpr std::size_t kMaximumDescribedBytes = 1024;

const char* typeName(XPCType type) {
  switch (type) {
    case XPCType::null:
      return "null";
    case XPCType::boolean:
      return "bool";
    case XPCType::int64:
      return "int64";
    case XPCType::uint64:
      return "uint64";
    case XPCType::real:
      return "double";
    case XPCType::date:
      return "date";
    case XPCType::data:
      return "data";
    case XPCType::string:
      return "string";
    case XPCType::uuid:
      return "uuid";
    case XPCType::array:
      return "array";
    case XPCType::dictionary:
      return "dictionary";
    case XPCType::fileDescriptor:
      return "fd";
    case XPCType::endpoint:
      return "endpoint";
    case XPCType::connection:
      return "connection";
    case XPCType::error:
      return "error";
  }
  return "object";
}

std::string opening(const XPCObject& object) {
  char text[64];
  std::snprintf(text, sizeof text, "<%s: %p>", typeName(object.type()),
                static_cast<const void*>(object.representation().get()));
  return text;
}

std::string describeData(const Data& data) {
  std::string text = " { length = " + std::to_string(data.length()) + " bytes, contents = 0x";
  char digits[3];
  for (std::size_t i = 0; i < data.length() && i < kMaximumDescribedBytes; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", data.bytes()[i]);
    text += digits;
  }
  return text + (data.length() > kMaximumDescribedBytes ? "..." : "") + " }";
}

std::string describeString(const XPCObject& object, const std::string& text) {
  return opening(object) + " { length = " + std::to_string(text.size()) + ", contents = \"" + text + "\" }";
}

class Describer {
 public:
  std::string describe(const XPCObject& object, std::size_t depth) const {
    if (!object) return "(null)";
    switch (object.type()) {
      case XPCType::null:
        return opening(object) + ": null-object";
      case XPCType::boolean:
        return opening(object) + (object.boolValue() ? ": true" : ": false");
      case XPCType::int64:
        return opening(object) + ": " + std::to_string(object.int64Value());
      case XPCType::uint64:
        return opening(object) + ": " + std::to_string(object.uint64Value());
      case XPCType::real:
        return opening(object) + ": " + std::to_string(object.realValue());
      case XPCType::date:
        return opening(object) + " " + qm::description(object.dateValue());
      case XPCType::data:
        return opening(object) + ":" + describeData(*object.dataValue());
      case XPCType::string:
        return describeString(object, *object.stringValue());
      case XPCType::uuid:
        return opening(object) + " " + qm::description(*object.uuidValue());
      case XPCType::array:
        return describeArray(object, depth);
      case XPCType::dictionary:
        return describeDictionary(object, depth);
      case XPCType::fileDescriptor:
        return describeDescriptor(object);
      case XPCType::endpoint:
        return opening(object);
      case XPCType::connection:
        return opening(object) + describeConnection(object.asConnection());
      case XPCType::error:
        return describeError(object, depth);
    }
    return opening(object);
  }

 private:
  static std::string tabs(std::size_t count) { return std::string(count, '\t'); }

  std::string describeArray(const XPCObject& object, std::size_t depth) const {
    const auto& values = xpc::asArray(object)->content;
    const std::string count = std::to_string(values.size());
    std::string text = opening(object) + " { count = " + count + ", capacity = " + count + ", contents =\n";
    if (depth == kMaximumDescribedDepth) return text + tabs(depth) + "... }";
    for (std::size_t i = 0; i < values.size(); ++i)
      text += tabs(depth + 1) + std::to_string(i) + ": " + describe(values[i], depth + 1) + "\n";
    return text + tabs(depth) + "}";
  }

  std::string describeDictionary(const XPCObject& object, std::size_t depth) const {
    const auto& entries = xpc::asDictionary(object)->entries;
    std::string text = dictionaryOpening(object, entries.size());
    if (depth == kMaximumDescribedDepth) return text + tabs(depth) + "... }";
    for (const auto& [key, value] : entries)
      text += tabs(depth + 1) + "\"" + key + "\" => " + describe(value, depth + 1) + "\n";
    return text + tabs(depth) + "}";
  }

  static std::string dictionaryOpening(const XPCObject& object, std::size_t count) {
    return opening(object) + " { count = " + std::to_string(count) +
           ", transaction: 0, voucher = 0x0, contents =\n";
  }

  static std::string describeError(const XPCObject& object, std::size_t depth) {
    const auto* error = representationAs<ErrorRepresentation>(object, XPCType::error);
    return dictionaryOpening(object, 1) + tabs(depth + 1) + "\"XPCErrorDescription\" => " +
           describeString(XPCObject::string(error->content), error->content) + "\n" + tabs(depth) + "}";
  }

  static std::string describeDescriptor(const XPCObject& object) {
    const auto* descriptor = representationAs<DescriptorRepresentation>(object, XPCType::fileDescriptor);
    return opening(object) + " { descriptor = " + std::to_string(descriptor->content.get()) + " }";
  }
};

}  // namespace

std::string XPCObject::description() const {
  return Describer().describe(*this, 0);
}

}  // namespace qm
