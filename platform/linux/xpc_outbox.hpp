// Frames on their way to one peer, in order. Not locked: its owner is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "foundation/block.hpp"
#include "platform/linux/xpc_object.hpp"

namespace qm::xpc {

// A frame with its header, or a barrier.
struct OutgoingFrame {
  std::vector<std::uint8_t> bytes;
  std::vector<XPCObject> attachments;  // their descriptors stay open until they are sent
  Block<void()> barrier;               // instead of bytes: called when everything before it was written
};

class Outbox {
 public:
  void push(OutgoingFrame frame);
  // Ahead of all; nothing may be half written.
  void pushFront(OutgoingFrame frame);

  bool empty() const { return frames_.empty(); }
  // Of memory, each frame's until it is written.
  std::size_t bytes() const { return bytes_; }
  std::size_t descriptors() const { return descriptors_; }

  enum class Result : std::uint8_t {
    drained,
    blocked,  // until the socket is writable
    retry,    // the system is out of buffers, or too many descriptors are on their way: a little later
    ended,    // the peer does not listen any more
    failed,   // errno says why
  };
  // Writes what the socket takes. The barriers that were passed are handed out, to be called without a lock.
  Result write(int socket, std::vector<Block<void()>>& passed);

  // Forgets all frames and hands out the barriers.
  void discard(std::vector<Block<void()>>& passed);

 private:
  Result writeOnce(int socket);
  void consume(std::size_t count);
  void add(const OutgoingFrame& frame);
  void popFront();

  std::deque<OutgoingFrame> frames_;
  std::size_t bytes_ = 0;
  std::size_t descriptors_ = 0;  // of all frames, each counted until its frame is written
  std::size_t written_ = 0;      // of the first frame
};

}  // namespace qm::xpc
