#include <cbor.h>

#include <limits>
#include <optional>
#include <string_view>

#include "foundation/strings.hpp"
#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_limits.hpp"
#include "platform/linux/xpc_socket.hpp"

namespace qm::xpc {
namespace {

// One item's head, and its content when that is a string.
struct Item {
  enum class Kind : std::uint8_t {
    unsupported,
    unsignedNumber,
    negativeNumber,
    bytes,
    text,
    array,
    map,
    tag,
    real,
    null,
    boolean
  };
  Kind kind = Kind::unsupported;
  bool flag = false;
  std::uint64_t number = 0;  // also the count of a container, the number of a tag; -1 - number when negative
  double real = 0;
  std::string_view content{};
};

Item& item(void* context) {
  return *static_cast<Item*>(context);
}

template <Item::Kind kKind, class Number>
void takeNumber(void* context, Number number) {
  item(context) = {.kind = kKind, .number = number};
}

template <Item::Kind kKind>
void takeContent(void* context, cbor_data content, std::size_t length) {
  item(context) = {.kind = kKind, .content = {reinterpret_cast<const char*>(content), length}};
}

template <class Real>
void takeReal(void* context, Real real) {
  item(context) = {.kind = Item::Kind::real, .real = static_cast<double>(real)};
}

void takeNull(void* context) {
  item(context) = {.kind = Item::Kind::null};
}
void takeBoolean(void* context, bool flag) {
  item(context) = {.kind = Item::Kind::boolean, .flag = flag};
}
// Items of unknown length, undefined and simple values have no place in a message.
void takeUnsupported(void* context) {
  item(context) = {};
}

const cbor_callbacks& callbacks() {
  using enum Item::Kind;
  static const cbor_callbacks table = [] {
    cbor_callbacks result = cbor_empty_callbacks;
    result.uint8 = takeNumber<unsignedNumber, std::uint8_t>;
    result.uint16 = takeNumber<unsignedNumber, std::uint16_t>;
    result.uint32 = takeNumber<unsignedNumber, std::uint32_t>;
    result.uint64 = takeNumber<unsignedNumber, std::uint64_t>;
    result.negint8 = takeNumber<negativeNumber, std::uint8_t>;
    result.negint16 = takeNumber<negativeNumber, std::uint16_t>;
    result.negint32 = takeNumber<negativeNumber, std::uint32_t>;
    result.negint64 = takeNumber<negativeNumber, std::uint64_t>;
    result.byte_string = takeContent<bytes>;
    result.string = takeContent<text>;
    result.array_start = takeNumber<array, std::size_t>;
    result.map_start = takeNumber<map, std::size_t>;
    result.tag = takeNumber<tag, std::uint64_t>;
    result.float2 = takeReal<float>;
    result.float4 = takeReal<float>;
    result.float8 = takeReal<double>;
    result.null = takeNull;
    result.boolean = takeBoolean;
    result.byte_string_start = takeUnsupported;
    result.string_start = takeUnsupported;
    result.indef_array_start = takeUnsupported;
    result.indef_map_start = takeUnsupported;
    result.undefined = takeUnsupported;
    result.indef_break = takeUnsupported;
    return result;
  }();
  return table;
}

// Every function that reads something returns the neutral result once the message is refused.
class Decoder {
 public:
  Decoder(std::span<const std::uint8_t> body, std::vector<PassedDescriptor> descriptors)
      : rest_(body), descriptors_(std::move(descriptors)) {}

  DecodedMessage decode() {
    const Item first = next();
    if (refusal_ == nullptr && first.kind != Item::Kind::map) refuse("not a dictionary");
    const XPCObject message = refusal_ == nullptr ? dictionary(first.number, 1) : XPCObject();
    if (refusal_ == nullptr && !rest_.empty()) refuse("bytes after the message");
    for (const PassedDescriptor& descriptor : descriptors_)
      if (refusal_ == nullptr && descriptor) refuse("unused descriptor");
    if (refusal_ != nullptr) return {.message = {}, .refusal = refusal_};
    return {.message = message.asDictionary(), .refusal = nullptr, .values = values_};
  }

 private:
  XPCObject refuse(const char* reason) {
    if (refusal_ == nullptr) refusal_ = reason;
    return {};
  }

  Item next() {
    Item result;
    if (refusal_ != nullptr) return result;
    const cbor_decoder_result step = cbor_stream_decode(rest_.data(), rest_.size(), &callbacks(), &result);
    if (step.status != CBOR_DECODER_FINISHED) {
      refuse("malformed CBOR");
      return {};
    }
    rest_ = rest_.subspan(step.read);
    return result;
  }

  XPCObject value(std::size_t depth) {
    if (++values_ > kMaximumValues) return refuse("too many values");
    const Item head = next();
    if (refusal_ != nullptr) return {};
    switch (head.kind) {
      case Item::Kind::unsignedNumber:
      case Item::Kind::negativeNumber:
        return make<Int64Representation>(signedNumber(head));
      case Item::Kind::bytes:
        return XPCObject::data(head.content.data(), head.content.size());
      case Item::Kind::text:
        return checkText(head) ? make<StringRepresentation>(head.content) : XPCObject();
      case Item::Kind::array:
        return array(head.number, depth + 1);
      case Item::Kind::map:
        return dictionary(head.number, depth + 1);
      case Item::Kind::tag:
        return tagged(head.number);
      case Item::Kind::real:
        return make<RealRepresentation>(head.real);
      case Item::Kind::null:
        return XPCObject::null();
      case Item::Kind::boolean:
        return XPCObject::boolean(head.flag);
      case Item::Kind::unsupported:
        break;
    }
    return refuse("value of an unknown type");
  }

  std::int64_t signedNumber(const Item& head) {
    if (head.number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      refuse("number out of range");
      return 0;
    }
    const auto number = static_cast<std::int64_t>(head.number);
    return head.kind == Item::Kind::negativeNumber ? -1 - number : number;
  }

  bool checkText(const Item& head) {
    if (head.content.find('\0') == std::string_view::npos && isValidUTF8(head.content)) return true;
    refuse("string that is not UTF-8 text");
    return false;
  }

  // Each element takes a byte at least: a count that cannot be true is refused before anything is made.
  bool mayOpen(std::uint64_t count, std::size_t bytesEach, std::size_t depth) {
    if (depth > kMaximumDepth) refuse("nested too deep");
    if (count > rest_.size() / bytesEach) refuse("malformed CBOR");
    return refusal_ == nullptr;
  }

  XPCObject array(std::uint64_t count, std::size_t depth) {
    if (!mayOpen(count, 1, depth)) return {};
    const auto result = std::make_shared<ArrayRepresentation>();
    for (std::uint64_t i = 0; i < count; ++i) {
      XPCObject element = value(depth);
      if (refusal_ != nullptr) return {};
      result->content.push_back(std::move(element));
    }
    return XPCObject(result);
  }

  XPCObject dictionary(std::uint64_t count, std::size_t depth) {
    if (!mayOpen(count, 2, depth)) return {};
    const auto result = std::make_shared<DictionaryRepresentation>();
    for (std::uint64_t i = 0; i < count; ++i) {
      const Item key = next();
      if (refusal_ != nullptr) return {};
      if (key.kind != Item::Kind::text) return refuse("key that is not a string");
      if (!checkText(key)) return {};
      XPCObject entry = value(depth);
      if (refusal_ != nullptr) return {};
      if (!result->entries.emplace(key.content, std::move(entry)).second) return refuse("key given twice");
    }
    return XPCObject(result);
  }

  XPCObject tagged(std::uint64_t tag) {
    const Item content = next();
    if (refusal_ != nullptr) return {};
    const bool isUnsigned = content.kind == Item::Kind::unsignedNumber;
    switch (tag) {
      case kTagUInt64:
        if (isUnsigned) return make<UInt64Representation>(content.number);
        break;
      case kTagDate:
        if (isUnsigned || content.kind == Item::Kind::negativeNumber)
          return make<DateRepresentation>(Date{signedNumber(content)});
        break;
      case kTagUUID:
        if (content.kind == Item::Kind::bytes && content.content.size() == sizeof(UUID::bytes))
          return uuid(content);
        break;
      case kTagDescriptor:
        if (isUnsigned) return adoptDescriptor(takeDescriptor(content.number));
        break;
      case kTagEndpoint:
        if (isUnsigned) return endpoint(content.number);
        break;
      default:
        return refuse("unknown tag");
    }
    return refuse("tag on a value of another type");
  }

  static XPCObject uuid(const Item& content) {
    UUID result;
    content.content.copy(reinterpret_cast<char*>(result.bytes.data()), result.bytes.size());
    return XPCObject::uuid(result);
  }

  XPCObject endpoint(std::uint64_t index) {
    PassedDescriptor descriptor = takeDescriptor(index);
    if (refusal_ != nullptr) return {};
    if (!isUnixSocket(descriptor.get(), SOCK_SEQPACKET)) return refuse("endpoint that is none");
    return adoptEndpoint(std::move(descriptor));
  }

  PassedDescriptor takeDescriptor(std::uint64_t index) {
    if (index >= descriptors_.size() || !descriptors_[index]) {
      refuse("descriptor that is not there, or used twice");
      return {};
    }
    return std::move(descriptors_[index]);
  }

  std::span<const std::uint8_t> rest_;
  std::vector<PassedDescriptor> descriptors_;
  std::size_t values_ = 1;  // the message itself
  const char* refusal_ = nullptr;
};

}  // namespace

DecodedMessage decodeMessage(std::span<const std::uint8_t> body, std::vector<PassedDescriptor> descriptors) {
  return Decoder(body, std::move(descriptors)).decode();
}

}  // namespace qm::xpc
