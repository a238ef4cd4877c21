#include <cbor.h>

#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_limits.hpp"

namespace qm::xpc {
namespace {

// The longest head of an item: one byte and a 64-bit number.
constexpr std::size_t kMaximumHead = 9;

class Encoder {
 public:
  explicit Encoder(EncodedMessage& output) : output_(output), start_(output.bytes.size()) {}

  void encode(const XPCObject& object, std::size_t depth) {
    if (!mayGoOn()) return;
    switch (object.type()) {
      case XPCType::null:
        return head(cbor_encode_null);
      case XPCType::boolean:
        return head(cbor_encode_bool, object.boolValue());
      case XPCType::int64:
        return integer(object.int64Value());
      case XPCType::uint64:
        return taggedNumber(kTagUInt64, object.uint64Value());
      case XPCType::real:
        return head(cbor_encode_double, object.realValue());
      case XPCType::date:
        head(cbor_encode_tag, kTagDate);
        return integer(object.dateValue().nanosecondsSince1970);
      case XPCType::data:
        return bytes(*object.dataValue());
      case XPCType::string:
        return text(*object.stringValue());
      case XPCType::uuid:
        return uuid(*object.uuidValue());
      case XPCType::array:
        return array(object, depth + 1);
      case XPCType::dictionary:
        return dictionary(object, depth + 1);
      case XPCType::fileDescriptor:
        return attachment(kTagDescriptor, object);
      case XPCType::endpoint:
        return attachment(kTagEndpoint, object);
      case XPCType::connection:
      case XPCType::error:
        return head(cbor_encode_null);
    }
  }

 private:
  bool mayGoOn() {
    if (output_.refusal != nullptr) return false;
    if (++values_ > kMaximumValues) return refuse("too many values");
    if (output_.bytes.size() - start_ > kMaximumBodyBytes) return refuse("message too long");
    return true;
  }

  bool refuse(const char* reason) {
    output_.refusal = reason;
    return false;
  }

  template <class Function, class... Arguments>
  void head(Function function, Arguments... arguments) {
    std::vector<std::uint8_t>& buffer = output_.bytes;
    const std::size_t before = buffer.size();
    buffer.resize(before + kMaximumHead);
    buffer.resize(before + function(arguments..., buffer.data() + before, kMaximumHead));
  }

  void integer(std::int64_t value) {
    if (value >= 0) return head(cbor_encode_uint, static_cast<std::uint64_t>(value));
    head(cbor_encode_negint, ~static_cast<std::uint64_t>(value));
  }

  void taggedNumber(std::uint64_t tag, std::uint64_t value) {
    head(cbor_encode_tag, tag);
    head(cbor_encode_uint, value);
  }

  void append(const void* content, std::size_t length) {
    if (length > kMaximumBodyBytes) {
      refuse("message too long");
      return;
    }
    const auto* first = static_cast<const std::uint8_t*>(content);
    output_.bytes.insert(output_.bytes.end(), first, first + length);
  }

  void bytes(const Data& data) {
    head(cbor_encode_bytestring_start, data.length());
    append(data.bytes(), data.length());
  }

  void text(std::string_view string) {
    head(cbor_encode_string_start, string.size());
    append(string.data(), string.size());
  }

  void uuid(const UUID& value) {
    head(cbor_encode_tag, kTagUUID);
    head(cbor_encode_bytestring_start, value.bytes.size());
    append(value.bytes.data(), value.bytes.size());
  }

  void array(const XPCObject& object, std::size_t depth) {
    if (depth > kMaximumDepth) {
      refuse("nested too deep");
      return;
    }
    const auto& values = asArray(object)->content;
    head(cbor_encode_array_start, values.size());
    for (const XPCObject& value : values) encode(value, depth);
  }

  void dictionary(const XPCObject& object, std::size_t depth) {
    if (depth > kMaximumDepth) {
      refuse("nested too deep");
      return;
    }
    const auto& entries = asDictionary(object)->entries;
    head(cbor_encode_map_start, entries.size());
    for (const auto& [key, value] : entries) {
      text(key);
      encode(value, depth);
    }
  }

  void attachment(std::uint64_t tag, const XPCObject& object) {
    if (output_.attachments.size() == kMaximumDescriptors) {
      refuse("too many descriptors");
      return;
    }
    taggedNumber(tag, output_.attachments.size());
    output_.attachments.push_back(object);
  }

  EncodedMessage& output_;
  const std::size_t start_;
  std::size_t values_ = 0;
};

}  // namespace

EncodedMessage encodeMessage(const XPCDictionary& message, std::size_t room) {
  EncodedMessage result;
  result.bytes.reserve(room + 512);
  result.bytes.resize(room);
  if (!message) {
    result.refusal = "no message";
    return result;
  }
  Encoder(result).encode(message, 0);
  if (result.refusal == nullptr && result.bytes.size() - room > kMaximumBodyBytes)
    result.refusal = "message too long";
  return result;
}

int attachedDescriptor(const XPCObject& attachment) {
  const auto* descriptor = representationAs<DescriptorRepresentation>(attachment, XPCType::fileDescriptor);
  if (descriptor != nullptr) return descriptor->content.get();
  const auto* endpoint = representationAs<EndpointRepresentation>(attachment, XPCType::endpoint);
  return endpoint == nullptr ? FileDescriptor::kNone : endpoint->content.get();
}

}  // namespace qm::xpc
