// One message as bytes and descriptors: a CBOR map (RFC 8949) with text keys. docs/wire.md has the format.
// Stateless, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/linux/xpc_object.hpp"

namespace qm::xpc {

// Tags of our own, out of the range that needs no registration. A plain integer is an int64.
inline constexpr std::uint64_t kTagUInt64 = 56101;  // on an unsigned integer
inline constexpr std::uint64_t kTagDate = 56102;    // on an integer: nanoseconds since 1970
inline constexpr std::uint64_t kTagDescriptor =
    56103;  // on an unsigned integer: index among the frame's descriptors
inline constexpr std::uint64_t kTagEndpoint = 56104;  // the same, for an endpoint
inline constexpr std::uint64_t kTagUUID = 37;         // registered: on 16 bytes

struct EncodedMessage {
  std::vector<std::uint8_t> bytes;     // the message after the room that was asked for
  std::vector<XPCObject> attachments;  // descriptors and endpoints in the order of their indices
  const char* refusal = nullptr;       // why it cannot be sent; null when it can
};

// Leaves room for a header in front. Connections and errors inside the message are sent as null. Refused is
// what breaks a limit.
EncodedMessage encodeMessage(const XPCDictionary& message, std::size_t room);

// The descriptor behind an attachment.
int attachedDescriptor(const XPCObject& attachment);

struct DecodedMessage {
  XPCDictionary message;          // null when refused
  const char* refusal = nullptr;  // what is wrong with it
  std::size_t values = 0;         // in it, containers and itself included
};

// Takes the descriptors over: they end up in the message, or closed. Each must be used exactly once.
DecodedMessage decodeMessage(std::span<const std::uint8_t> body, std::vector<PassedDescriptor> descriptors);

}  // namespace qm::xpc
