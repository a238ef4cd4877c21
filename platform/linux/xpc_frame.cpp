#include "platform/linux/xpc_frame.hpp"

#include <iterator>
#include <utility>

namespace qm::xpc {
namespace {

// A buffer that grew beyond this for one long message is given back.
constexpr std::size_t kKeptCapacity = 64 * 1024;

template <class Number>
void put(Number number, std::uint8_t* bytes) {
  for (std::size_t i = 0; i < sizeof number; ++i) bytes[i] = static_cast<std::uint8_t>(number >> (8 * i));
}

template <class Number>
Number get(const std::uint8_t* bytes) {
  Number number = 0;
  for (std::size_t i = 0; i < sizeof number; ++i)
    number = static_cast<Number>(number | static_cast<Number>(static_cast<Number>(bytes[i]) << (8 * i)));
  return number;
}

}  // namespace

void writeHeader(const FrameHeader& header, std::uint8_t* bytes) {
  put(header.bodyBytes, bytes);
  bytes[4] = kWireVersion;
  bytes[5] = static_cast<std::uint8_t>(header.kind);
  put(header.descriptors, bytes + 6);
  put(header.identifier, bytes + 8);
}

const char* readHeader(const std::uint8_t* bytes, FrameHeader& header) {
  header.bodyBytes = get<std::uint32_t>(bytes);
  if (bytes[4] != kWireVersion) return "another version of the wire";
  if (bytes[5] < static_cast<std::uint8_t>(FrameKind::welcome) ||
      bytes[5] > static_cast<std::uint8_t>(FrameKind::unanswered))
    return "unknown kind of frame";
  header.kind = static_cast<FrameKind>(bytes[5]);
  header.descriptors = get<std::uint16_t>(bytes + 6);
  header.identifier = get<std::uint64_t>(bytes + 8);
  return nullptr;
}

void FrameReader::feed(std::span<const std::uint8_t> bytes, std::vector<PassedDescriptor> descriptors) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  received_ += bytes.size();
  if (!descriptors.empty()) batches_.push_back({received_, std::move(descriptors)});
}

FrameReader::Step FrameReader::next(Frame& frame) {
  if (refusal_ != nullptr) return Step::refused;
  const std::size_t available = buffer_.size() - taken_;
  if (available < kHeaderBytes)
    return descriptorsUpTo(received_) > kMaximumDescriptors ? refuse("too many descriptors")
                                                            : Step::incomplete;

  FrameHeader header;
  if (const char* reason = readHeader(buffer_.data() + taken_, header)) return refuse(reason);
  if (header.bodyBytes > maximumBody_) return refuse("message too long");
  if (header.descriptors > kMaximumDescriptors) return refuse("too many descriptors");
  const std::size_t length = kHeaderBytes + header.bodyBytes;
  const std::uint64_t end = position_ + length;
  const std::size_t attached = descriptorsUpTo(end);
  if (attached > header.descriptors) return refuse("more descriptors than announced");
  if (available < length) return Step::incomplete;
  if (attached < header.descriptors) return refuse("fewer descriptors than announced");

  frame.header = header;
  const auto body = buffer_.begin() + static_cast<std::ptrdiff_t>(taken_ + kHeaderBytes);
  frame.body.assign(body, body + header.bodyBytes);
  frame.descriptors.clear();
  takeDescriptors(end, frame.descriptors);
  taken_ += length;
  position_ = end;
  ++count_;
  compact();
  return Step::frame;
}

FrameReader::Step FrameReader::refuse(const char* reason) {
  refusal_ = reason;
  return Step::refused;
}

std::size_t FrameReader::descriptorsUpTo(std::uint64_t end) const {
  std::size_t count = 0;
  for (const Batch& batch : batches_)
    if (batch.end <= end) count += batch.descriptors.size();
  return count;
}

void FrameReader::takeDescriptors(std::uint64_t end, std::vector<PassedDescriptor>& descriptors) {
  while (!batches_.empty() && batches_.front().end <= end) {
    auto& batch = batches_.front().descriptors;
    descriptors.insert(descriptors.end(), std::make_move_iterator(batch.begin()),
                       std::make_move_iterator(batch.end()));
    batches_.pop_front();
  }
}

void FrameReader::compact() {
  if (taken_ == buffer_.size()) {
    buffer_.clear();
    taken_ = 0;
    if (buffer_.capacity() > kKeptCapacity) buffer_.shrink_to_fit();
  } else if (taken_ > kKeptCapacity) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(taken_));
    taken_ = 0;
  }
}

}  // namespace qm::xpc
