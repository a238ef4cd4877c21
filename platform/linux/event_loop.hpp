// The one thread of the process that waits for descriptors and for timers: the transport registers its
// sockets here, and delayed work of the queues its deadlines. Handlers run on the loop's thread, one at a
// time and with no lock held; they must not block, or everybody else waits: longer work goes to a queue.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "foundation/block.hpp"

namespace qm {

class EventLoop;

// What a source waits for. Level-triggered: the handler is called again as long as the descriptor is ready.
struct EventInterest {
  bool readable = false;
  bool writable = false;
};

// What there is. A hang-up (both directions closed, or an error on the descriptor) is reported also when
// nothing is of interest, but then only once; the end of the peer's data alone is just readable.
struct EventReadiness {
  bool readable = false;
  bool writable = false;
  bool hangUp = false;
};

// One watched descriptor. Owns the registration, not the descriptor; the destructor cancels. All functions
// may be called from any thread, also at once, except for the move and the destructor.
class EventSource {
 public:
  EventSource() = default;  // watches nothing
  EventSource(EventSource&& other) noexcept;
  EventSource& operator=(EventSource&& other) noexcept;
  ~EventSource();

  explicit operator bool() const { return loop_ != nullptr; }

  // Replaces the interest. Nothing happens once it is cancelled.
  void setInterest(EventInterest interest) const;
  // Ends it for good. When this returns no handler runs and none will, and the descriptor may be closed; the
  // call that came first has also released the handler. Waits for a handler of this source that is running on
  // the loop's thread, so hold no lock which the handler takes. From within the handler itself it does not
  // wait; the handler is released when it returns.
  void cancel() const;

 private:
  friend class EventLoop;
  EventSource(EventLoop* loop, std::uint64_t identifier) : loop_(loop), identifier_(identifier) {}

  EventLoop* loop_ = nullptr;
  std::uint64_t identifier_ = 0;
};

class EventLoop {
 public:
  using Handler = Block<void(EventReadiness)>;

  // A pending timer, to cancel it by.
  struct Timer {
    std::chrono::steady_clock::time_point deadline;
    std::uint64_t identifier = 0;
    friend auto operator<=>(const Timer&, const Timer&) = default;
  };

  // Made with its thread at the first call; lives as long as the process.
  static EventLoop& shared();

  // Watches a descriptor that the caller keeps open until the source is cancelled, and that is watched only
  // once. To store the source before its first call, start without interest and set it then. An empty source
  // with errno set when the descriptor cannot be watched (a regular file: EPERM; a limit: ENOSPC, ENOMEM).
  [[nodiscard]] EventSource watch(int descriptor, EventInterest interest, Handler handler);

  // Runs the work once on the loop's thread, never early, in the order of the deadlines. Any number may be
  // pending.
  Timer runAfter(std::chrono::nanoseconds delay, Block<void()> work);
  // True: it will not run, and is released. False: it has run, runs right now, or was cancelled before.
  bool cancelTimer(const Timer& timer);

  // True on the loop's thread.
  bool isCurrent() const;

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

 private:
  friend class EventSource;
  struct State;

  EventLoop();
  ~EventLoop();  // never called

  std::unique_ptr<State> state_;
};

}  // namespace qm
