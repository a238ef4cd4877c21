// Frames: what a connection's byte stream is cut into, and the descriptors that belong to each. docs/wire.md
// has the layout.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "platform/linux/xpc_disposal.hpp"
#include "platform/linux/xpc_limits.hpp"

namespace qm::xpc {

enum class FrameKind : std::uint8_t {
  welcome = 1,     // listener to client: the nonce
  hello = 2,       // client to listener: the nonce again
  message = 3,     // no reply expected
  request = 4,     // a reply expected
  reply = 5,       // to the request with the same identifier
  unanswered = 6,  // the request with the same identifier will get no reply
};

inline constexpr std::uint8_t kWireVersion = 1;
inline constexpr std::size_t kHeaderBytes = 16;
inline constexpr std::size_t kNonceBytes = 16;
using Nonce = std::array<std::uint8_t, kNonceBytes>;

struct FrameHeader {
  std::uint32_t bodyBytes = 0;
  FrameKind kind = FrameKind::message;
  std::uint16_t descriptors = 0;
  std::uint64_t identifier = 0;  // of a request; 0 when none is asked or answered
};

// Both take exactly kHeaderBytes.
void writeHeader(const FrameHeader& header, std::uint8_t* bytes);
// Why the header is refused, or null.
const char* readHeader(const std::uint8_t* bytes, FrameHeader& header);

struct Frame {
  FrameHeader header;
  std::vector<std::uint8_t> body;
  std::vector<PassedDescriptor> descriptors;
};

// Puts frames together from what the socket gives. The kernel ends a read behind the part of a write that
// carried descriptors, so that they belong to the frame in which that read ends.
class FrameReader {
 public:
  // Frames with longer bodies are refused from here on.
  void setMaximumBody(std::size_t bytes) { maximumBody_ = bytes; }

  // The bytes of one read and the descriptors that came with it.
  void feed(std::span<const std::uint8_t> bytes, std::vector<PassedDescriptor> descriptors);

  enum class Step : std::uint8_t { frame, incomplete, refused };
  // The next whole frame. After a refusal the stream cannot be read any further.
  Step next(Frame& frame);
  const char* refusal() const { return refusal_; }

  // Part of a frame is there.
  bool hasPartialFrame() const { return taken_ < buffer_.size(); }
  // Frames taken so far.
  std::uint64_t count() const { return count_; }

 private:
  struct Batch {
    std::uint64_t end = 0;  // position in the stream behind the read it came with
    std::vector<PassedDescriptor> descriptors;
  };

  Step refuse(const char* reason);
  std::size_t descriptorsUpTo(std::uint64_t end) const;
  void takeDescriptors(std::uint64_t end, std::vector<PassedDescriptor>& descriptors);
  void compact();

  std::size_t maximumBody_ = kMaximumBodyBytes;
  std::vector<std::uint8_t> buffer_;
  std::size_t taken_ = 0;       // bytes of the buffer that belong to frames already taken
  std::uint64_t position_ = 0;  // of the first byte not taken, in the stream
  std::uint64_t received_ = 0;  // bytes fed so far
  std::uint64_t count_ = 0;
  std::deque<Batch> batches_;
  const char* refusal_ = nullptr;
};

}  // namespace qm::xpc
