#include "platform/linux/xpc_outbox.hpp"

#include <array>
#include <cerrno>

#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_limits.hpp"
#include "platform/linux/xpc_socket.hpp"

namespace qm::xpc {
namespace {

constexpr std::size_t kFramesPerWrite = 16;

std::size_t memoryOf(const OutgoingFrame& frame) {
  return sizeof frame + frame.bytes.capacity();
}

Outbox::Result resultOf(int error) {
  switch (error) {
    case EAGAIN:
      return Outbox::Result::blocked;
    // ETOOMANYREFS: more descriptors are on their way than the user may have open (unix(7)).
    case ETOOMANYREFS:
    case ENOBUFS:
    case ENOMEM:
      return Outbox::Result::retry;
    case EPIPE:
    case ECONNRESET:
      return Outbox::Result::ended;
    default:
      return Outbox::Result::failed;
  }
}

}  // namespace

void Outbox::push(OutgoingFrame frame) {
  add(frame);
  frames_.push_back(std::move(frame));
}

void Outbox::pushFront(OutgoingFrame frame) {
  add(frame);
  frames_.push_front(std::move(frame));
}

void Outbox::add(const OutgoingFrame& frame) {
  bytes_ += memoryOf(frame);
  descriptors_ += frame.attachments.size();
}

void Outbox::popFront() {
  bytes_ -= memoryOf(frames_.front());
  descriptors_ -= frames_.front().attachments.size();
  frames_.pop_front();
}

Outbox::Result Outbox::write(int socket, std::vector<Block<void()>>& passed) {
  while (!frames_.empty()) {
    if (frames_.front().barrier) {
      passed.push_back(std::move(frames_.front().barrier));
      popFront();
      continue;
    }
    if (const Result result = writeOnce(socket); result != Result::drained) return result;
  }
  return Result::drained;
}

// A frame with descriptors has a write of its own, the others share one.
Outbox::Result Outbox::writeOnce(int socket) {
  std::array<iovec, kFramesPerWrite> pieces{};
  std::array<int, kMaximumDescriptors> descriptors{};
  std::size_t pieceCount = 0;
  std::size_t descriptorCount = 0;
  for (OutgoingFrame& frame : frames_) {
    const bool isFirst = pieceCount == 0;
    const bool carries = !frame.attachments.empty() && (!isFirst || written_ == 0);
    if (pieceCount == pieces.size() || frame.barrier || (carries && !isFirst)) break;
    const std::size_t skipped = isFirst ? written_ : 0;
    pieces[pieceCount++] = {.iov_base = frame.bytes.data() + skipped,
                            .iov_len = frame.bytes.size() - skipped};
    if (!carries) continue;
    for (const XPCObject& attachment : frame.attachments)
      descriptors[descriptorCount++] = attachedDescriptor(attachment);
    break;
  }
  const ssize_t written = sendWithDescriptors(socket, std::span(pieces).first(pieceCount),
                                              std::span<const int>(descriptors).first(descriptorCount));
  if (written < 0) return resultOf(errno);
  consume(static_cast<std::size_t>(written));
  return Result::drained;
}

void Outbox::consume(std::size_t count) {
  written_ += count;
  while (!frames_.empty() && !frames_.front().barrier && written_ >= frames_.front().bytes.size()) {
    written_ -= frames_.front().bytes.size();
    popFront();
  }
}

void Outbox::discard(std::vector<Block<void()>>& passed) {
  for (OutgoingFrame& frame : frames_)
    if (frame.barrier) passed.push_back(std::move(frame.barrier));
  frames_.clear();
  bytes_ = 0;
  descriptors_ = 0;
  written_ = 0;
}

}  // namespace qm::xpc
