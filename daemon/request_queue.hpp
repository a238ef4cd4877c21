// The queue on which requests are answered, shared out among the users whose files are asked about: what
// waits for a file system that does not answer, and may have been mounted for that, takes no worker from the
// others.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "foundation/block.hpp"
#include "platform/queue.hpp"

// Whose share a request takes. A user's long files have one of their own: they wait for processors while
// short ones pass (platform/long_work.hpp).
struct RequestShare {
  std::uint32_t userID = 0;
  bool isOfLongFiles = false;
  friend auto operator<=>(const RequestShare&, const RequestShare&) = default;
};

// A handle, cheap to copy.
class RequestQueue {
 public:
  RequestQueue() = default;  // null: not to be used
  // At most so many requests of one user run at once, half of them in each share; not less than two.
  explicit RequestQueue(qm::Queue queue, std::size_t maximumPerUser = defaultMaximumPerUser());
  // A third of what may block before everybody waits.
  static std::size_t defaultMaximumPerUser();

  // The same queue for the work of one peer. With the last copy of the handle goes what still waits for its
  // share: nobody wants its reply any more, and it holds open files.
  RequestQueue forPeer() const;

  // Runs the work on the queue; when the share is taken, behind what waits for it already, in order and
  // without limit: what a peer may have in flight is bounded elsewhere. The work must not hold the handle.
  // Any thread.
  void async(const RequestShare& share, qm::Block<void()> work) const;

 private:
  struct State;
  struct Peer;
  std::shared_ptr<State> state_;
  std::shared_ptr<const Peer> peer_;  // null: nobody's
};
