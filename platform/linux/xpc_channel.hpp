// One connected socket and the frames on it: the handshake, the check of who sends, the limits. What the
// frames mean is its delegate's business. Dies with the socket: a connection that is made anew gets a new
// channel.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "foundation/log.hpp"
#include "platform/common/thread_annotations.hpp"
#include "platform/linux/event_loop.hpp"
#include "platform/linux/xpc_frame.hpp"
#include "platform/linux/xpc_outbox.hpp"
#include "platform/linux/xpc_peer.hpp"
#include "platform/linux/xpc_socket.hpp"

namespace qm::xpc {

class Channel;

Log& transportLog();

// What is received and not handled yet; bytes of memory.
struct HeldCost {
  std::size_t messages = 0;
  std::size_t bytes = 0;
  std::size_t descriptors = 0;
};

// What counts against its peer's limits while this lives: a received message or request until it is handled,
// or the descriptors of a frame until the last of them is closed.
class Hold {
 public:
  Hold() = default;
  Hold(std::shared_ptr<Channel> channel, const HeldCost& cost, std::size_t values)
      : channel_(std::move(channel)), cost_(cost), values_(values) {}
  Hold(Hold&& other) noexcept = default;
  Hold& operator=(Hold&&) = delete;
  ~Hold();

  // The message turned out to have so many values, at most one for each byte of its body; until then it
  // counts as if it had as many as it can. Not of an empty hold.
  void setValues(std::size_t values);

 private:
  std::shared_ptr<Channel> channel_;
  HeldCost cost_;
  std::size_t values_ = 0;
};

// Called on the event loop's thread, with no lock held.
class ChannelDelegate {
 public:
  virtual ~ChannelDelegate() = default;
  // A message, request, reply or unanswered frame. The hold is empty for the latter two; the descriptors of
  // any have one of their own.
  virtual void channelReceived(const std::shared_ptr<Channel>& channel, Frame frame, Hold hold) = 0;
  // Once, after everything that was received.
  virtual void channelClosed(const std::shared_ptr<Channel>& channel) = 0;
};

struct ChannelDeadlines {
  std::chrono::milliseconds hello = kHelloDeadline;
  std::chrono::milliseconds frame = kFrameDeadline;
};

class Channel : public std::enable_shared_from_this<Channel> {
 public:
  enum class Role : std::uint8_t { listener, client };

  Channel(Role role, std::weak_ptr<ChannelDelegate> delegate, ChannelDeadlines deadlines = {});
  ~Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // The functions below may be called from any thread.

  // Once. A listener's channel must know its peer, a client's finds it out by itself.
  void start(FileDescriptor socket, std::optional<Peer> peer);
  // In order, from the calling thread when nothing is in the way; kept until the handshake is over. False
  // when the channel is closed.
  bool send(OutgoingFrame frame);
  // Ends it. With a reason the peer broke a rule: that is logged. Frames not yet written are dropped.
  void close(const char* reason);
  // Ends it when everything was written.
  void closeWhenDrained();

  // The peer broke a rule: what it sent before is worth nothing either.
  bool isRefused() const;
  // Zeros as long as it is not known.
  AuditToken token() const;

 private:
  friend class Hold;
  enum class State : std::uint8_t { waiting, handshake, open, closing, closed };

  // On the loop's thread.
  void begin();
  void ready(const EventReadiness& readiness);
  void processEnded();
  void read(int maximumReads);
  void readToTheEnd();
  bool readOnce(bool& isDrained);
  bool checkSender(const Received& received);
  bool process();
  bool handle(Frame& frame);
  bool handleWelcome(const Frame& frame);
  bool handleHello(const Frame& frame);
  void open(std::optional<OutgoingFrame> first);
  bool sendWelcome();
  bool pauseIfFull();
  void guardPartialFrame();
  void finish();

  // What a write leaves to be done without a lock.
  struct Written {
    std::vector<Block<void()>> passed;  // barriers
    const char* failure = nullptr;
    bool isLast = false;  // nothing is left of what the channel lingers for
  };

  // Any thread.
  void flush();
  Hold hold(const HeldCost& cost, std::size_t values = 0);
  Hold holdMessage(const Frame& frame);
  void holdDescriptors(Frame& frame);
  void release(const HeldCost& cost);
  bool isReading() const;
  bool isFull() const QM_REQUIRES(mutex_);
  void write(Written& written) QM_REQUIRES(writing_);
  void updateInterest() QM_REQUIRES(mutex_);
  void conclude(const Written& written);

  const Role role_;
  const std::weak_ptr<ChannelDelegate> delegate_;
  const ChannelDeadlines deadlines_;

  // Of the loop's thread.
  FrameReader reader_;
  Nonce nonce_{};
  EventSource processSource_;
  std::optional<EventLoop::Timer> helloTimer_;
  std::optional<EventLoop::Timer> frameTimer_;
  std::uint64_t timedFrame_ = 0;
  bool hasHungUp_ = false;

  // Held while the socket is written to, and taken before the other one, which never is: what comes in is
  // read meanwhile. A send wakes up the peer, whose answer may be here before the send returns.
  Mutex writing_;
  Outbox outbox_ QM_GUARDED_BY(writing_);

  mutable Mutex mutex_;
  State state_ QM_GUARDED_BY(mutex_) = State::waiting;
  FileDescriptor socket_ QM_GUARDED_BY(mutex_);
  Peer peer_ QM_GUARDED_BY(mutex_);
  bool knowsPeer_ QM_GUARDED_BY(mutex_) = false;
  EventSource source_ QM_GUARDED_BY(mutex_);
  EventInterest interest_ QM_GUARDED_BY(mutex_);
  bool isBlocked_ QM_GUARDED_BY(mutex_) = false;   // waits for the socket to become writable
  bool isRetrying_ QM_GUARDED_BY(mutex_) = false;  // a timer will write
  bool isDeaf_ QM_GUARDED_BY(mutex_) = false;      // the peer takes nothing any more
  bool isRefused_ QM_GUARDED_BY(mutex_) = false;
  bool isPaused_ QM_GUARDED_BY(mutex_) = false;  // not read until something is handled
  HeldCost held_ QM_GUARDED_BY(mutex_);
  std::shared_ptr<Channel> lingering_ QM_GUARDED_BY(mutex_);  // itself, until everything is written
};

}  // namespace qm::xpc
