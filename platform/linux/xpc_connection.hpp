// What stands behind XPCConnection handles: a listener, or one end of a conversation.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/common/thread_annotations.hpp"
#include "platform/linux/serial_target.hpp"
#include "platform/linux/xpc_channel.hpp"
#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_object.hpp"
#include "platform/xpc.hpp"

namespace qm::xpc {

// What XPCConnection passes its calls to. A listener cannot send, and only an anonymous one has an endpoint.
class ConnectionCore : public XPCObject::Representation, public std::enable_shared_from_this<ConnectionCore> {
 public:
  ConnectionCore() : Representation(XPCType::connection) {}
  virtual ~ConnectionCore() = default;

  virtual void setEventHandler(XPCConnection::EventHandler handler) = 0;
  virtual void activate() = 0;
  virtual void cancel() = 0;
  virtual void sendMessage(const XPCDictionary& message) = 0;
  virtual void sendMessageWithReply(const XPCDictionary& message, const Queue& queue,
                                    XPCConnection::ReplyHandler handler,
                                    std::chrono::milliseconds timeout) = 0;
  virtual XPCObject sendMessageWithReplySync(const XPCDictionary& message) = 0;
  virtual void sendBarrier(Block<void()> block) = 0;
  virtual AuditToken auditToken() const = 0;
  virtual XPCEndpoint endpoint() const { return {}; }
  virtual std::string description() const = 0;

 protected:
  XPCObject handle() { return XPCObject(shared_from_this()); }
};

// The event handler of one connection and the serial queue it runs on.
class EventDelivery {
 public:
  explicit EventDelivery(const Queue& target) { setTarget(target); }

  void setHandler(XPCConnection::EventHandler handler);
  // What was asked for, perhaps null.
  const Queue& target() const { return target_; }
  const Queue& queue() const { return queue_; }
  // Before anything was delivered.
  void setTarget(const Queue& target) {
    target_ = target;
    queue_ = serialTarget(target);
  }
  // The handler at this moment; on the queue.
  XPCConnection::EventHandler handler() const;
  // Takes the handler away, for the last call.
  XPCConnection::EventHandler takeHandler();

 private:
  Queue target_;
  Queue queue_;
  mutable Mutex mutex_;
  XPCConnection::EventHandler handler_ QM_GUARDED_BY(mutex_);
};

// The duty to answer one request. Whoever holds the request or the reply made from it holds this; when the
// last is gone and no reply was sent, the peer is told so.
class ReplyObligation {
 public:
  ReplyObligation(std::shared_ptr<Channel> channel, std::uint64_t identifier, Hold hold);
  ~ReplyObligation();
  ReplyObligation(const ReplyObligation&) = delete;
  ReplyObligation& operator=(const ReplyObligation&) = delete;

  // True once: for the first reply that is made.
  bool claim() { return !isClaimed_.exchange(true); }
  // Sends the reply. False when one was sent before.
  bool answer(EncodedMessage reply);

 private:
  bool finish(OutgoingFrame frame);

  const std::shared_ptr<Channel> channel_;
  const std::uint64_t identifier_;
  std::atomic<bool> isClaimed_{false};
  std::atomic<bool> isAnswered_{false};
  Hold hold_;
};

// Runs its block when the last holder is gone: the error event waits for the reply handlers of its session.
class Finally {
 public:
  ~Finally() {
    if (block_) block_();
  }
  // Before the holder that calls this lets go.
  void set(Block<void()> block) { block_ = std::move(block); }

 private:
  Block<void()> block_;
};

// A client of a named service, a client of an endpoint, or a peer that a listener accepted.
class Connection final : public ConnectionCore, public ChannelDelegate {
 public:
  static std::shared_ptr<Connection> createNamedClient(std::string serviceName, const Queue& target);
  static std::shared_ptr<Connection> createEndpointClient(XPCEndpoint endpoint, const Queue& target);
  // The ticket is destroyed when the peer was admitted or refused.
  static std::shared_ptr<Connection> createPeer(std::string name, FileDescriptor socket, Peer peer,
                                                const Queue& target, std::shared_ptr<void> ticket);
  enum class Kind : std::uint8_t { namedClient, endpointClient, peer };
  Connection(Kind kind, std::string name, XPCEndpoint endpoint, const Queue& target);
  ~Connection() override;

  void setEventHandler(XPCConnection::EventHandler handler) override;
  void activate() override;
  void cancel() override;
  void sendMessage(const XPCDictionary& message) override;
  void sendMessageWithReply(const XPCDictionary& message, const Queue& queue,
                            XPCConnection::ReplyHandler handler, std::chrono::milliseconds timeout) override;
  XPCObject sendMessageWithReplySync(const XPCDictionary& message) override;
  void sendBarrier(Block<void()> block) override;
  AuditToken auditToken() const override;
  std::string description() const override;

  // The same for messages that are encoded and not refused. `send` returns the error that is already known,
  // else null.
  XPCObject send(EncodedMessage message);
  void request(EncodedMessage message, const Queue& queue, XPCConnection::ReplyHandler handler,
               std::chrono::milliseconds timeout = std::chrono::milliseconds::zero());
  // The error event waits for the holders of the session, as it does for reply handlers.
  struct Answer {
    XPCObject reply;
    std::shared_ptr<Finally> session;
  };
  // Waits for the reply, which the event loop's thread hands over: no worker is needed.
  Answer requestSync(EncodedMessage message);
  // Returns when everything sent before has left, or never will.
  void waitUntilSent();

  // Of a peer that is not active yet. Its handlers run on the queue instead of the listener's.
  void setTargetQueue(const Queue& target) { events_.setTarget(target); }
  // Of a peer that will be activated later: it no longer counts as undecided.
  void setDecided();

  void channelReceived(const std::shared_ptr<Channel>& channel, Frame frame, Hold hold) override;
  void channelClosed(const std::shared_ptr<Channel>& channel) override;

 private:
  // idle: a named client whose service went away; the next message connects again.
  enum class State : std::uint8_t { inactive, active, idle, ended };

  // A thread that waits for a reply.
  struct Waiter;

  struct PendingReply {
    Queue queue;
    XPCConnection::ReplyHandler handler;
    std::shared_ptr<Waiter> waiter{};  // instead of the two
    std::optional<EventLoop::Timer> timer{};
    std::shared_ptr<Finally> session{};
  };

  std::shared_ptr<Connection> self() { return std::static_pointer_cast<Connection>(shared_from_this()); }
  std::shared_ptr<Channel> makeChannel() QM_REQUIRES(mutex_);
  // The channel to send on, null when the connection is invalid; one that is new has to be connected.
  std::shared_ptr<Channel> channelToSend(bool& isNew) QM_REQUIRES(mutex_);
  void connect(const std::shared_ptr<Channel>& channel);
  void request(EncodedMessage message, PendingReply pending, std::chrono::milliseconds timeout);
  XPCObject endingError() const QM_REQUIRES(mutex_);
  // The barrier runs on the thread that writes; at once when there is nothing to wait for.
  void passBarrier(Block<void()> barrier);
  void lookUpFailed(const std::shared_ptr<Channel>& channel);

  void deliverMessage(const std::shared_ptr<Channel>& channel, Frame frame, Hold hold);
  void deliverReply(const std::shared_ptr<Channel>& channel, Frame frame);
  XPCObject decodeReply(Channel& channel, Frame& frame);
  void timeOut(std::uint64_t identifier);
  std::optional<PendingReply> takePending(std::uint64_t identifier);
  static void runReply(PendingReply pending, const XPCObject& reply);
  void deliverError(const XPCObject& error, bool isFinal);
  bool isCancelled() const;

  const Kind kind_;
  const std::string name_;
  const XPCEndpoint endpoint_;
  EventDelivery events_;

  mutable Mutex mutex_;
  State state_ QM_GUARDED_BY(mutex_) = State::inactive;
  bool isCancelled_ QM_GUARDED_BY(mutex_) = false;
  bool hasFailedLookUp_ QM_GUARDED_BY(mutex_) = false;
  std::shared_ptr<Channel> channel_ QM_GUARDED_BY(mutex_);
  FileDescriptor acceptedSocket_ QM_GUARDED_BY(mutex_);  // of a peer, until it is admitted
  std::optional<Peer> acceptedPeer_ QM_GUARDED_BY(mutex_);
  AuditToken token_ QM_GUARDED_BY(mutex_);
  std::shared_ptr<void> ticket_ QM_GUARDED_BY(mutex_);
  std::uint64_t lastIdentifier_ QM_GUARDED_BY(mutex_) = 0;
  std::unordered_map<std::uint64_t, PendingReply> pending_ QM_GUARDED_BY(mutex_);
  std::shared_ptr<Finally> session_ QM_GUARDED_BY(mutex_);
  // Itself: as long as replies are outstanding; a peer, and whoever was cancelled, until the final error.
  std::shared_ptr<ConnectionCore> self_ QM_GUARDED_BY(mutex_);
};

// A service under its name, or an anonymous one.
std::shared_ptr<ConnectionCore> createListener(std::string serviceName, const Queue& target);
std::shared_ptr<ConnectionCore> createAnonymousListener(const Queue& target);

// The connection behind a handle that is not null.
inline ConnectionCore& coreOf(const XPCObject& connection) {
  return static_cast<ConnectionCore&>(*connection.representation());
}

}  // namespace qm::xpc
