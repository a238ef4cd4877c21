#include "platform/linux/xpc_connection.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/linux/worker_pool.hpp"
#include "platform/linux/xpc_disposal.hpp"
#include "platform/linux/xpc_place.hpp"

namespace qm::xpc {
namespace {

OutgoingFrame makeFrame(FrameKind kind, std::uint64_t identifier, EncodedMessage message) {
  writeHeader({.bodyBytes = static_cast<std::uint32_t>(message.bytes.size() - kHeaderBytes),
               .kind = kind,
               .descriptors = static_cast<std::uint16_t>(message.attachments.size()),
               .identifier = identifier},
              message.bytes.data());
  return {.bytes = std::move(message.bytes), .attachments = std::move(message.attachments), .barrier = {}};
}

OutgoingFrame unansweredFrame(std::uint64_t identifier) {
  EncodedMessage empty;
  empty.bytes.resize(kHeaderBytes);
  return makeFrame(FrameKind::unanswered, identifier, std::move(empty));
}

bool isRetryable(int error) {
  return error == EAGAIN || error == ETOOMANYREFS || error == ENOBUFS || error == ENOMEM || error == EMFILE ||
         error == ENFILE;
}

}  // namespace

void EventDelivery::setHandler(XPCConnection::EventHandler handler) {
  MutexLock lock(mutex_);
  std::swap(handler_, handler);
}

XPCConnection::EventHandler EventDelivery::handler() const {
  MutexLock lock(mutex_);
  return handler_;
}

XPCConnection::EventHandler EventDelivery::takeHandler() {
  MutexLock lock(mutex_);
  return std::exchange(handler_, nullptr);
}

ReplyObligation::ReplyObligation(std::shared_ptr<Channel> channel, std::uint64_t identifier, Hold hold)
    : channel_(std::move(channel)), identifier_(identifier), hold_(std::move(hold)) {}

ReplyObligation::~ReplyObligation() {
  if (!isAnswered_) finish(unansweredFrame(identifier_));
}

bool ReplyObligation::answer(EncodedMessage reply) {
  if (reply.refusal != nullptr) return finish(unansweredFrame(identifier_));
  return finish(makeFrame(FrameKind::reply, identifier_, std::move(reply)));
}

bool ReplyObligation::finish(OutgoingFrame frame) {
  if (isAnswered_.exchange(true)) return false;
  channel_->send(std::move(frame));
  const Hold done = std::move(hold_);
  return true;
}

// What it waits for is written before it is woken.
struct Connection::Waiter {
  template <class Write>
  void finish(const Write& write) {
    write();
    MutexLock lock(mutex);
    isFinished = true;
    finished.notifyAll();
  }
  void wait() {
    WorkerPool::shared().willBlock();
    MutexLock lock(mutex);
    while (!isFinished) finished.wait(lock);
  }

  std::shared_ptr<Channel> channel;  // on which the frame came; null when there is an error instead
  Frame frame;
  XPCObject error;
  std::shared_ptr<Finally> session;

  Mutex mutex;
  Condition finished;
  bool isFinished QM_GUARDED_BY(mutex) = false;
};

std::shared_ptr<Connection> Connection::createNamedClient(std::string serviceName, const Queue& target) {
  auto result =
      std::make_shared<Connection>(Kind::namedClient, std::move(serviceName), XPCEndpoint(), target);
  MutexLock lock(result->mutex_);
  result->channel_ = result->makeChannel();
  return result;
}

std::shared_ptr<Connection> Connection::createEndpointClient(XPCEndpoint endpoint, const Queue& target) {
  auto result =
      std::make_shared<Connection>(Kind::endpointClient, std::string(), std::move(endpoint), target);
  MutexLock lock(result->mutex_);
  result->channel_ = result->makeChannel();
  return result;
}

std::shared_ptr<Connection> Connection::createPeer(std::string name, FileDescriptor socket, Peer peer,
                                                   const Queue& target, std::shared_ptr<void> ticket) {
  auto result = std::make_shared<Connection>(Kind::peer, std::move(name), XPCEndpoint(), target);
  MutexLock lock(result->mutex_);
  result->channel_ = result->makeChannel();
  result->token_ = peer.token;
  result->acceptedSocket_ = std::move(socket);
  result->acceptedPeer_ = std::move(peer);
  result->ticket_ = std::move(ticket);
  return result;
}

Connection::Connection(Kind kind, std::string name, XPCEndpoint endpoint, const Queue& target)
    : kind_(kind), name_(std::move(name)), endpoint_(std::move(endpoint)), events_(target) {}

// Nobody can hear of it any more: what was sent is still delivered.
Connection::~Connection() {
  if (channel_) channel_->closeWhenDrained();
  closeSocketElsewhere(std::move(acceptedSocket_), token_.effectiveUserID());
}

std::shared_ptr<Channel> Connection::makeChannel() {
  session_ = std::make_shared<Finally>();
  return std::make_shared<Channel>(kind_ == Kind::peer ? Channel::Role::listener : Channel::Role::client,
                                   self());
}

void Connection::setEventHandler(XPCConnection::EventHandler handler) {
  events_.setHandler(std::move(handler));
}

void Connection::activate() {
  std::shared_ptr<Channel> channel;
  std::shared_ptr<void> ticket;
  FileDescriptor socket;
  std::optional<Peer> peer;
  {
    MutexLock lock(mutex_);
    if (state_ != State::inactive || isCancelled_) return;
    state_ = State::active;
    channel = channel_;
    ticket = std::move(ticket_);
    socket = std::move(acceptedSocket_);
    peer = std::exchange(acceptedPeer_, std::nullopt);
    if (kind_ == Kind::peer) self_ = shared_from_this();
  }
  if (kind_ == Kind::peer) return channel->start(std::move(socket), std::move(peer));
  connect(channel);
}

void Connection::cancel() {
  std::shared_ptr<Channel> channel;
  std::shared_ptr<void> ticket;
  FileDescriptor socket;
  std::optional<Peer> peer;
  {
    MutexLock lock(mutex_);
    if (isCancelled_ || state_ == State::ended) return;
    isCancelled_ = true;
    if (state_ == State::idle) state_ = State::ended;
    channel = channel_;
    if (channel) self_ = shared_from_this();
    ticket = std::move(ticket_);
    socket = std::move(acceptedSocket_);
    peer = std::exchange(acceptedPeer_, std::nullopt);
  }
  closeSocketElsewhere(std::move(socket), auditToken().effectiveUserID());
  if (channel) return channel->close(nullptr);
  deliverError(xpcErrorConnectionInvalid(), true);
}

void Connection::connect(const std::shared_ptr<Channel>& channel) {
  const bool isNamed = kind_ == Kind::namedClient;
  FileDescriptor socket =
      isNamed ? connectToService(name_) : connectThroughEndpoint(attachedDescriptor(endpoint_));
  if (socket) return channel->start(std::move(socket), std::nullopt);
  const int error = errno;
  if (!isRetryable(error)) {
    QM_LOG_DEBUG(transportLog(), "Cannot connect to %{public}s: %{public}s", name_, std::strerror(error));
    return lookUpFailed(channel);
  }
  // Held meanwhile: what was sent is delivered, whoever lets go of it.
  EventLoop::shared().runAfter(kSendPause, [self = self(), channel] {
    if (!self->isCancelled()) self->connect(channel);
  });
}

void Connection::lookUpFailed(const std::shared_ptr<Channel>& channel) {
  {
    MutexLock lock(mutex_);
    hasFailedLookUp_ = true;
  }
  channel->close(nullptr);
}

std::shared_ptr<Channel> Connection::channelToSend(bool& isNew) {
  if (isCancelled_ || state_ == State::ended) return nullptr;
  if (state_ == State::idle) {
    channel_ = makeChannel();
    state_ = State::active;
    isNew = true;
  }
  return channel_;
}

void Connection::sendMessage(const XPCDictionary& message) {
  EncodedMessage encoded = encodeMessage(message, kHeaderBytes);
  if (encoded.refusal != nullptr)
    QM_LOG_ERROR(transportLog(), "Message to pid %d not sent: %{public}s", auditToken().processID(),
                 encoded.refusal);
  const DictionaryRepresentation* dictionary = asDictionary(message);
  if (dictionary != nullptr && dictionary->isReply && dictionary->remote.representation().get() == this) {
    if (!dictionary->obligation->answer(std::move(encoded)))
      QM_LOG_ERROR(transportLog(), "Reply to pid %d sent twice", auditToken().processID());
    return;
  }
  if (encoded.refusal == nullptr) send(std::move(encoded));
}

XPCObject Connection::send(EncodedMessage message) {
  bool isNew = false;
  std::shared_ptr<Channel> channel;
  {
    MutexLock lock(mutex_);
    channel = channelToSend(isNew);
  }
  if (!channel) return xpcErrorConnectionInvalid();
  const bool isTaken = channel->send(makeFrame(FrameKind::message, 0, std::move(message)));
  if (isNew) connect(channel);
  MutexLock lock(mutex_);
  return isTaken && !hasFailedLookUp_ ? XPCObject() : endingError();
}

// What those who wait get when the channel ends now.
XPCObject Connection::endingError() const {
  const bool isFinal = kind_ != Kind::namedClient || isCancelled_ || hasFailedLookUp_;
  return isFinal ? xpcErrorConnectionInvalid() : xpcErrorConnectionInterrupted();
}

void Connection::sendMessageWithReply(const XPCDictionary& message, const Queue& queue,
                                      XPCConnection::ReplyHandler handler,
                                      std::chrono::milliseconds timeout) {
  EncodedMessage encoded = encodeMessage(message, kHeaderBytes);
  if (encoded.refusal == nullptr) return request(std::move(encoded), queue, std::move(handler), timeout);
  QM_LOG_ERROR(transportLog(), "Message to pid %d not sent: %{public}s", auditToken().processID(),
               encoded.refusal);
  runReply({.queue = queue ? queue : Queue::global(), .handler = std::move(handler)},
           xpcErrorMessageRefused());
}

XPCObject Connection::sendMessageWithReplySync(const XPCDictionary& message) {
  EncodedMessage encoded = encodeMessage(message, kHeaderBytes);
  if (encoded.refusal == nullptr) return requestSync(std::move(encoded)).reply;
  QM_LOG_ERROR(transportLog(), "Message to pid %d not sent: %{public}s", auditToken().processID(),
               encoded.refusal);
  return xpcErrorMessageRefused();
}

void Connection::request(EncodedMessage message, const Queue& queue, XPCConnection::ReplyHandler handler,
                         std::chrono::milliseconds timeout) {
  request(std::move(message), {.queue = queue ? queue : Queue::global(), .handler = std::move(handler)},
          timeout);
}

Connection::Answer Connection::requestSync(EncodedMessage message) {
  const auto waiter = std::make_shared<Waiter>();
  request(std::move(message), {.queue = {}, .handler = {}, .waiter = waiter},
          std::chrono::milliseconds::zero());
  waiter->wait();
  if (!waiter->channel) return {waiter->error, std::move(waiter->session)};
  return {decodeReply(*waiter->channel, waiter->frame), std::move(waiter->session)};
}

void Connection::request(EncodedMessage message, PendingReply pending, std::chrono::milliseconds timeout) {
  bool isNew = false;
  std::uint64_t identifier = 0;
  std::shared_ptr<Channel> channel;
  {
    MutexLock lock(mutex_);
    channel = channelToSend(isNew);
    if (channel) {
      identifier = ++lastIdentifier_;
      self_ = shared_from_this();
      pending.session = session_;
      if (timeout > std::chrono::milliseconds::zero()) {
        pending.timer = EventLoop::shared().runAfter(timeout, [weak = weak_from_this(), identifier] {
          if (const auto core = weak.lock()) static_cast<Connection&>(*core).timeOut(identifier);
        });
      }
      pending_.emplace(identifier, std::move(pending));
    }
  }
  if (!channel) return runReply(std::move(pending), xpcErrorConnectionInvalid());
  channel->send(makeFrame(FrameKind::request, identifier, std::move(message)));
  if (isNew) connect(channel);
}

void Connection::sendBarrier(Block<void()> block) {
  passBarrier([queue = events_.queue(), block = std::move(block)] { queue.async(block); });
}

void Connection::passBarrier(Block<void()> barrier) {
  std::shared_ptr<Channel> channel;
  {
    MutexLock lock(mutex_);
    if (!isCancelled_) channel = channel_;
  }
  if (!channel || !channel->send({.bytes = {}, .attachments = {}, .barrier = barrier})) barrier();
}

void Connection::waitUntilSent() {
  const auto waiter = std::make_shared<Waiter>();
  passBarrier([waiter] { waiter->finish([] {}); });
  waiter->wait();
}

void Connection::setDecided() {
  std::shared_ptr<void> ticket;
  MutexLock lock(mutex_);
  std::swap(ticket, ticket_);
}

AuditToken Connection::auditToken() const {
  MutexLock lock(mutex_);
  return kind_ == Kind::peer || !channel_ ? token_ : channel_->token();
}

std::string Connection::description() const {
  const AuditToken token = auditToken();
  const bool isKnown = token.processID() != 0;
  char text[160];
  std::snprintf(text, sizeof text, ", listener = false, pid = %d, euid = %u, egid = %u, asid = %u }",
                token.processID(), isKnown ? token.words[1] : UINT32_MAX,
                isKnown ? token.words[2] : UINT32_MAX, isKnown ? token.words[6] : UINT32_MAX);
  char peer[32] = "";
  if (kind_ == Kind::peer) std::snprintf(peer, sizeof peer, ".peer.%p", static_cast<const void*>(this));
  return " { name = " + (name_.empty() && kind_ != Kind::peer ? "(anonymous)" : name_) + peer + text;
}

void Connection::channelReceived(const std::shared_ptr<Channel>& channel, Frame frame, Hold hold) {
  if (frame.header.kind == FrameKind::reply || frame.header.kind == FrameKind::unanswered)
    return deliverReply(channel, std::move(frame));
  events_.queue().async([self = self(), channel, frame = std::move(frame), hold = std::move(hold)]() mutable {
    self->deliverMessage(channel, std::move(frame), std::move(hold));
  });
}

void Connection::channelClosed(const std::shared_ptr<Channel>& channel) {
  std::unordered_map<std::uint64_t, PendingReply> pending;
  std::shared_ptr<Finally> session;
  std::shared_ptr<ConnectionCore> keep;
  XPCObject error;
  bool isFinal = false;
  {
    MutexLock lock(mutex_);
    if (channel != channel_) return;
    error = endingError();
    isFinal = error == xpcErrorConnectionInvalid();
    state_ = isFinal ? State::ended : State::idle;
    if (kind_ != Kind::peer) token_ = channel->token();
    channel_ = nullptr;
    pending.swap(pending_);
    session = std::move(session_);
    keep = std::move(self_);
  }
  session->set([self = self(), error, isFinal] { self->deliverError(error, isFinal); });
  for (auto& [identifier, reply] : pending) {
    if (reply.timer) EventLoop::shared().cancelTimer(*reply.timer);
    runReply(std::move(reply), error);
  }
}

void Connection::deliverMessage(const std::shared_ptr<Channel>& channel, Frame frame, Hold hold) {
  if (isCancelled() || channel->isRefused()) return;
  DecodedMessage decoded = decodeMessage(frame.body, std::move(frame.descriptors));
  if (decoded.refusal != nullptr) return channel->close(decoded.refusal);
  hold.setValues(decoded.values);
  auto& dictionary = static_cast<DictionaryRepresentation&>(*decoded.message.representation());
  dictionary.remote = handle();
  if (frame.header.kind == FrameKind::request)
    dictionary.obligation =
        std::make_shared<ReplyObligation>(channel, frame.header.identifier, std::move(hold));
  frame = {};
  if (const XPCConnection::EventHandler handler = events_.handler()) handler(decoded.message);
}

void Connection::deliverReply(const std::shared_ptr<Channel>& channel, Frame frame) {
  std::optional<PendingReply> pending = takePending(frame.header.identifier);
  if (!pending) return;  // too late, or nobody asked
  if (const std::shared_ptr<Waiter> waiter = pending->waiter) {
    return waiter->finish([&] {
      waiter->channel = channel;
      waiter->frame = std::move(frame);
      waiter->session = std::move(pending->session);
    });
  }
  const Queue queue = pending->queue;
  queue.async([self = self(), channel, frame = std::move(frame), pending = std::move(*pending)]() mutable {
    pending.handler(self->decodeReply(*channel, frame));
    pending.handler = nullptr;
    pending.session = nullptr;
  });
}

XPCObject Connection::decodeReply(Channel& channel, Frame& frame) {
  if (frame.header.kind == FrameKind::unanswered) return xpcErrorConnectionInterrupted();
  DecodedMessage decoded = decodeMessage(frame.body, std::move(frame.descriptors));
  if (decoded.refusal != nullptr) {
    channel.close(decoded.refusal);
    return xpcErrorConnectionInterrupted();
  }
  static_cast<DictionaryRepresentation&>(*decoded.message.representation()).remote = handle();
  return decoded.message;
}

void Connection::timeOut(std::uint64_t identifier) {
  if (std::optional<PendingReply> pending = takePending(identifier))
    runReply(std::move(*pending), xpcErrorReplyTimedOut());
}

std::optional<Connection::PendingReply> Connection::takePending(std::uint64_t identifier) {
  std::optional<PendingReply> result;
  std::shared_ptr<ConnectionCore> keep;
  {
    MutexLock lock(mutex_);
    auto node = pending_.extract(identifier);
    if (node.empty()) return std::nullopt;
    result = std::move(node.mapped());
    if (pending_.empty() && kind_ != Kind::peer && !isCancelled_) keep = std::move(self_);
  }
  if (result->timer) EventLoop::shared().cancelTimer(*result->timer);
  return result;
}

void Connection::runReply(PendingReply pending, const XPCObject& reply) {
  if (const std::shared_ptr<Waiter> waiter = pending.waiter) {
    return waiter->finish([&] {
      waiter->error = reply;
      waiter->session = std::move(pending.session);
    });
  }
  const Queue queue = pending.queue;
  queue.async([pending = std::move(pending), reply]() mutable {
    pending.handler(reply);
    pending.handler = nullptr;
    pending.session = nullptr;
  });
}

void Connection::deliverError(const XPCObject& error, bool isFinal) {
  events_.queue().async([self = self(), error, isFinal] {
    const XPCConnection::EventHandler handler =
        isFinal ? self->events_.takeHandler() : self->events_.handler();
    if (handler) handler(error);
  });
}

bool Connection::isCancelled() const {
  MutexLock lock(mutex_);
  return isCancelled_;
}

}  // namespace qm::xpc
