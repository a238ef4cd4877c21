#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/darwin/queue_core.hpp"
#include "platform/darwin/xpc_object.hpp"

// Exported by the system's library, but declared in no public header. Fills in 32 bytes.
extern "C" void xpc_connection_get_audit_token(xpc_connection_t connection, audit_token_t* token);

namespace qm {
namespace {

// Zeros as long as there is no peer: the system's own words then are not.
AuditToken tokenOf(xpc_connection_t connection) {
  if (xpc_connection_get_pid(connection) == 0) return {};
  audit_token_t token{};
  static_assert(sizeof token == sizeof(AuditToken));
  xpc_connection_get_audit_token(connection, &token);
  AuditToken result;
  std::copy_n(token.val, result.words.size(), result.words.begin());
  return result;
}

// Who ends a connection.
enum class Ownership : std::uint8_t {
  client,    // its last handle
  listener,  // its last handle
  peer,      // the system, unless nobody wanted it
  system,    // the other end of a message: whoever has it as one of the others
};

class ConnectionRepresentation;

// What a connection calls, apart from it: the system's block holds this, so that the connection can go.
class EventReceiver {
 public:
  void setHandler(XPCConnection::EventHandler handler) {
    const std::lock_guard lock(mutex_);
    if (!hasEnded_) std::swap(handler_, handler);
  }
  // Nothing is called from now on.
  void end() {
    XPCConnection::EventHandler released;
    const std::lock_guard lock(mutex_);
    hasEnded_ = true;
    std::swap(released, handler_);
  }
  void received(xpc_object_t event);

 private:
  std::mutex mutex_;
  XPCConnection::EventHandler handler_;
  bool hasEnded_ = false;  // the final error came
};

class ConnectionRepresentation final : public XPCObject::Representation {
 public:
  // Takes over a reference.
  ConnectionRepresentation(xpc_connection_t connection, Ownership ownership)
      : Representation(XPCType::connection, connection), ownership_(ownership) {
    if (ownership == Ownership::system) return;
    // At once: who a new peer is must be asked before a message from somebody else can change it.
    if (ownership == Ownership::peer) token_ = tokenOf(connection);
    receiver_ = std::make_shared<EventReceiver>();
    const std::shared_ptr<EventReceiver> receiver = receiver_;
    xpc_connection_set_event_handler(connection, ^(xpc_object_t event) {
      receiver->received(event);
    });
  }

  ~ConnectionRepresentation() override {
    if (ownership_ == Ownership::peer && !isActivated_) xpc_connection_cancel(connection());
    if (ownership_ == Ownership::peer || ownership_ == Ownership::system) return;
    receiver_->end();
    activate();  // an inactive one must not be released
    if (ownership_ == Ownership::listener) {
      xpc_connection_cancel(connection());
      return;
    }
    // What was sent before is still delivered.
    const auto ended = static_cast<xpc_connection_t>(xpc_retain(connection()));
    xpc_connection_send_barrier(ended, ^{
      xpc_connection_cancel(ended);
      xpc_release(ended);
    });
  }
  ConnectionRepresentation(const ConnectionRepresentation&) = delete;
  ConnectionRepresentation& operator=(const ConnectionRepresentation&) = delete;

  xpc_connection_t connection() const { return static_cast<xpc_connection_t>(object); }

  void setEventHandler(XPCConnection::EventHandler handler) const {
    if (receiver_ != nullptr) receiver_->setHandler(std::move(handler));
  }
  void activate() {
    if (ownership_ != Ownership::system && !isActivated_.exchange(true))
      xpc_connection_activate(connection());
  }
  void cancel() {
    // One that was never active could not be released after it. A peer can, and is refused so.
    if (ownership_ == Ownership::client || ownership_ == Ownership::listener) activate();
    xpc_connection_cancel(connection());
  }
  AuditToken auditToken() const { return ownership_ == Ownership::peer ? token_ : tokenOf(connection()); }

 private:
  const Ownership ownership_;
  AuditToken token_;
  std::shared_ptr<EventReceiver> receiver_;
  std::atomic<bool> isActivated_{false};
};

ConnectionRepresentation* connectionOf(const XPCConnection& connection) {
  return static_cast<ConnectionRepresentation*>(connection.representation().get());
}

XPCConnection make(xpc_connection_t connection, Ownership ownership) {
  return XPCObject(std::make_shared<ConnectionRepresentation>(connection, ownership)).asConnection();
}

void EventReceiver::received(xpc_object_t event) {
  const bool isFinal = event == XPC_ERROR_CONNECTION_INVALID;
  XPCConnection::EventHandler handler;
  {
    const std::lock_guard lock(mutex_);
    handler = handler_;
    if (isFinal) hasEnded_ = true;
    if (isFinal) handler_ = nullptr;  // another holds it: nothing is destroyed under the lock
  }
  if (xpc_get_type(event) == XPC_TYPE_CONNECTION) {
    // A new peer. Without a handler it is refused when this handle of it goes.
    const XPCConnection peer = make(static_cast<xpc_connection_t>(xpc_retain(event)), Ownership::peer);
    if (handler) handler(peer);
  } else if (handler) {
    handler(xpc::wrap(event));
  }
}

// One reply or one time-out, whichever is first.
class AwaitedReply {
 public:
  explicit AwaitedReply(XPCConnection::ReplyHandler handler) : handler_(std::move(handler)) {}

  void answer(const XPCObject& reply) {
    if (isAnswered_.exchange(true)) return;
    XPCConnection::ReplyHandler handler;
    std::swap(handler, handler_);  // what it holds goes with the answer, not with the time-out's block
    if (handler) handler(reply);
  }

 private:
  std::atomic<bool> isAnswered_{false};
  XPCConnection::ReplyHandler handler_;
};

}  // namespace

namespace xpc {

XPCObject wrapRemoteConnection(xpc_connection_t connection) {
  return make(static_cast<xpc_connection_t>(xpc_retain(connection)), Ownership::system);
}

}  // namespace xpc

XPCConnection XPCConnection::createListener(std::string_view serviceName, Queue targetQueue) {
  return make(xpc_connection_create_mach_service(std::string(serviceName).c_str(), dispatchQueue(targetQueue),
                                                 XPC_CONNECTION_MACH_SERVICE_LISTENER),
              Ownership::listener);
}

XPCConnection XPCConnection::createAnonymousListener(Queue targetQueue) {
  return make(xpc_connection_create(nullptr, dispatchQueue(targetQueue)), Ownership::listener);
}

XPCConnection XPCConnection::createClient(std::string_view serviceName, Queue targetQueue) {
  return make(
      xpc_connection_create_mach_service(std::string(serviceName).c_str(), dispatchQueue(targetQueue), 0),
      Ownership::client);
}

XPCConnection XPCConnection::createClient(const XPCEndpoint& endpoint, Queue targetQueue) {
  const auto system = static_cast<xpc_endpoint_t>(xpc::raw(endpoint));
  if (system == nullptr) return {};  // none, or one of remote calls
  const xpc_connection_t connection = xpc_connection_create_from_endpoint(system);
  if (targetQueue) xpc_connection_set_target_queue(connection, dispatchQueue(targetQueue));
  return make(connection, Ownership::client);
}

XPCEndpoint XPCConnection::endpoint() const {
  return representation_
             ? XPCEndpoint::from(xpc::adopt(xpc_endpoint_create(connectionOf(*this)->connection())))
             : XPCEndpoint();
}

void XPCConnection::setEventHandler(EventHandler handler) const {
  if (representation_) connectionOf(*this)->setEventHandler(std::move(handler));
}

void XPCConnection::activate() const {
  if (representation_) connectionOf(*this)->activate();
}

void XPCConnection::cancel() const {
  if (representation_) connectionOf(*this)->cancel();
}

void XPCConnection::sendMessage(const XPCDictionary& message) const {
  if (representation_ && message)
    xpc_connection_send_message(connectionOf(*this)->connection(), xpc::raw(message));
}

void XPCConnection::sendMessageWithReply(const XPCDictionary& message, const Queue& queue,
                                         ReplyHandler handler, std::chrono::milliseconds timeout) const {
  const Queue replyQueue = queue ? queue : Queue::global();
  const auto awaited = std::make_shared<AwaitedReply>(std::move(handler));
  if (!representation_ || !message)
    return replyQueue.async([awaited] { awaited->answer(xpcErrorConnectionInvalid()); });
  const XPCConnection alive = *this;  // as long as the reply is outstanding
  xpc_connection_send_message_with_reply(connectionOf(*this)->connection(), xpc::raw(message),
                                         dispatchQueue(replyQueue), ^(xpc_object_t reply) {
                                           (void)alive;
                                           awaited->answer(xpc::wrap(reply));
                                         });
  if (timeout > std::chrono::milliseconds::zero())
    replyQueue.after(timeout, [awaited] { awaited->answer(xpcErrorReplyTimedOut()); });
}

XPCObject XPCConnection::sendMessageWithReplySync(const XPCDictionary& message) const {
  if (!representation_ || !message) return xpcErrorConnectionInvalid();
  return xpc::adopt(
      xpc_connection_send_message_with_reply_sync(connectionOf(*this)->connection(), xpc::raw(message)));
}

void XPCConnection::sendBarrier(Block<void()> block) const {
  if (!representation_) return block();
  xpc_connection_send_barrier(connectionOf(*this)->connection(), ^{
    block();
  });
}

AuditToken XPCConnection::auditToken() const {
  return representation_ ? connectionOf(*this)->auditToken() : AuditToken();
}

}  // namespace qm
