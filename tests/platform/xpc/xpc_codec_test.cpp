#include "platform/linux/xpc_codec.hpp"

#include <algorithm>
#include <array>

#include "platform/linux/xpc_limits.hpp"
#include "xpc_test_support.hpp"

using namespace qm::xpc;

namespace {

using Bytes = std::vector<std::uint8_t>;

XPCDictionary messageWith(const XPCObject& value) {
  XPCDictionary message = XPCDictionary::create();
  message.setValue("v", value);
  return message;
}

// {"v": <the bytes>}
Bytes mapWith(const Bytes& value) {
  constexpr std::array<std::uint8_t, 3> kStart{0xa1, 0x61, 'v'};
  Bytes bytes(kStart.size() + value.size());
  std::copy(value.begin(), value.end(), std::copy(kStart.begin(), kStart.end(), bytes.begin()));
  return bytes;
}

TEST(XPCCodec, EveryValueSurvivesTheRoundTrip) {
  XPCArray all = XPCArray::create();
  for (const XPCObject& value :
       {XPCObject::null(), XPCObject::boolean(true), XPCObject::boolean(false), XPCObject::string(""),
        XPCObject::string("Grüße \xf0\x9f\x90\x9f"), XPCObject::string(std::string(70000, 'x')),
        XPCObject::data(nullptr, 0), XPCObject::data("a\0b", 3),
        XPCObject::uuid({{1, 2, 3, 4, 5, 6, 7, 8, 9}}), XPCObject::real(0.1), XPCObject::real(-0.0),
        XPCObject::real(std::numeric_limits<double>::infinity()), XPCObject::real(std::nan("")),
        XPCObject::uint64(0), XPCObject::uint64(std::numeric_limits<std::uint64_t>::max())})
    all.append(value);
  for (const std::int64_t number :
       {std::int64_t{0}, std::int64_t{23}, std::int64_t{24}, std::int64_t{-25}, std::int64_t{1} << 40,
        std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}) {
    all.append(XPCObject::int64(number));
    all.append(XPCObject::date(Date{number}));
  }
  const XPCDictionary message = messageWith(messageWith(all));
  EXPECT_EQ(decodeMessage(encodeMessage(message, 0).bytes, {}).message, message);
  EXPECT_NE(XPCObject::int64(1), XPCObject::uint64(1));
}

TEST(XPCObject, ANumberIsDescribedWhole) {
  using testing::EndsWith;
  EXPECT_THAT(XPCObject::real(-0.25).description(), EndsWith(">: -0.250000"));
  EXPECT_THAT(XPCObject::real(0x1p100).description(), EndsWith(">: 1267650600228229401496703205376.000000"));
}

TEST(XPCCodec, WhatIsWrongIsRefusedAndItsDescriptorsAreClosed) {
  Bytes tooDeep(kMaximumDepth, 0x81);
  tooDeep.back() = 0x80;
  Bytes tooMany{0x9a, 0, 1, 0, 0};
  tooMany.resize(tooMany.size() + kMaximumValues, 0xf6);
  const struct {
    const char* what;
    Bytes body;
    const char* refusal;
  } cases[] = {
      {"nothing", {}, "malformed CBOR"},
      {"an array", {0x80}, "not a dictionary"},
      {"text cut short", mapWith({0x65, 'a', 'b'}), "malformed CBOR"},
      {"a length beyond everything", mapWith({0x7b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}),
       "malformed CBOR"},
      {"a count that cannot be", mapWith({0x9b, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}),
       "malformed CBOR"},
      {"arrays in arrays", mapWith(tooDeep), "nested too deep"},
      {"an array without end", mapWith(tooMany), "too many values"},
      {"bytes behind the message", {0xa0, 0x00}, "bytes after the message"},
      {"a number as key", {0xa1, 0x01, 0x01}, "key that is not a string"},
      {"a key twice", {0xa2, 0x61, 'v', 0x01, 0x61, 'v', 0x02}, "key given twice"},
      {"a key that is not UTF-8", {0xa1, 0x61, 0xff, 0x01}, "string that is not UTF-8 text"},
      {"text that is not UTF-8", mapWith({0x62, 0xc3, 0x28}), "string that is not UTF-8 text"},
      {"text with a NUL", mapWith({0x63, 'a', 0, 'b'}), "string that is not UTF-8 text"},
      {"an integer above int64", mapWith({0x1b, 0x80, 0, 0, 0, 0, 0, 0, 0}), "number out of range"},
      {"an integer below int64", mapWith({0x3b, 0x80, 0, 0, 0, 0, 0, 0, 0}), "number out of range"},
      {"an array of unknown length", mapWith({0x9f, 0xff}), "value of an unknown type"},
      {"undefined", mapWith({0xf7}), "value of an unknown type"},
      {"an unknown tag", mapWith({0xc0, 0x60}), "unknown tag"},
      {"a short uuid", mapWith({0xd8, 0x25, 0x42, 1, 2}), "tag on a value of another type"},
      {"an unsigned number on text", mapWith({0xd9, 0xdb, 0x25, 0x60}), "tag on a value of another type"},
      {"a descriptor that is not there", mapWith({0xd9, 0xdb, 0x27, 0x01}),
       "descriptor that is not there, or used twice"},
      {"an endpoint that is a pipe", mapWith({0xd9, 0xdb, 0x28, 0x00}), "endpoint that is none"},
      {"no use of the descriptor", mapWith({0x01}), "unused descriptor"},
      {"two uses of the descriptor",
       {0xa2, 0x61, 'a', 0xd9, 0xdb, 0x27, 0x00, 0x61, 'b', 0xd9, 0xdb, 0x27, 0x00},
       "descriptor that is not there, or used twice"},
  };
  for (const auto& each : cases) {
    Pipe pipe;
    std::vector<xpc::PassedDescriptor> descriptors;
    descriptors.push_back(pipe.writeEnd.duplicate());
    const DecodedMessage decoded = decodeMessage(each.body, std::move(descriptors));
    EXPECT_STREQ(decoded.refusal, each.refusal) << each.what;
    EXPECT_FALSE(decoded.message) << each.what;
    EXPECT_TRUE(pipe.isWriteEndClosedEverywhere()) << each.what;
  }
}

}  // namespace
