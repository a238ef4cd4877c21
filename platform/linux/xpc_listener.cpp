#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/linux/xpc_admission.hpp"
#include "platform/linux/xpc_connection.hpp"
#include "platform/linux/xpc_disposal.hpp"
#include "platform/linux/xpc_place.hpp"
#include "platform/linux/xpc_socket.hpp"

namespace qm::xpc {
namespace {

// Peers accepted before other sources of the event loop get their turn.
constexpr int kAcceptsPerTurn = 16;

// What one attempt brought.
enum class Outcome : std::uint8_t { peer, nothing, drained, exhausted, ended };

Outcome outcomeOf(int error) {
  switch (error) {
    case EAGAIN:
      return Outcome::drained;
    case EINTR:
    case ECONNABORTED:
    case EPERM:
      return Outcome::nothing;
    default:
      return Outcome::exhausted;  // of descriptors or memory
  }
}

Outcome acceptFromSocket(int listening, AcceptedPeer& accepted) {
  accepted.socket.reset(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!accepted.socket) return outcomeOf(errno);
  std::optional<Peer> peer = peerOfSocket(accepted.socket.get());
  if (!peer) {
    closeSocketElsewhere(std::move(accepted.socket), std::nullopt);
    return Outcome::nothing;
  }
  accepted.peer = std::move(*peer);
  return Outcome::peer;
}

// A packet with one end of a socket pair. Who sent it is the peer: the pair itself only knows who made it.
Outcome acceptFromEndpoint(int listening, AcceptedPeer& accepted) {
  std::array<std::uint8_t, 16> buffer{};
  Received received = receive(listening, buffer);
  if (received.length < 0) return outcomeOf(received.error);
  if (received.length == 0 && !received.sender) return Outcome::ended;
  const bool isSound = received.length == 1 && buffer[0] == kWireVersion && received.sender &&
                       received.descriptors.size() == 1 &&
                       isUnixSocket(received.descriptors.front().get(), SOCK_STREAM);
  if (!isSound) {
    QM_LOG_ERROR(transportLog(), "Ignoring a request for a connection from pid %d",
                 received.sender ? received.sender->pid : 0);
    return Outcome::nothing;
  }
  accepted.socket = received.descriptors.front().take();
  accepted.peer = peerFromCredentials(*received.sender, std::move(received.process));
  return Outcome::peer;
}

class Listener final : public ConnectionCore {
 public:
  Listener(std::string name, const Queue& target) : name_(std::move(name)), events_(target) {}
  ~Listener() override { source_.cancel(); }

  // Before anything else; the anonymous listener works on these.
  void setPair(SocketPair pair) {
    MutexLock lock(mutex_);
    accepting_ = std::move(pair.first);
    endpoint_ = adoptEndpoint(std::move(pair.second));
  }

  void setEventHandler(XPCConnection::EventHandler handler) override {
    events_.setHandler(std::move(handler));
  }
  void activate() override;
  void cancel() override;
  void sendMessage(const XPCDictionary&) override {}
  void sendMessageWithReply(const XPCDictionary&, const Queue& queue, XPCConnection::ReplyHandler handler,
                            std::chrono::milliseconds) override {
    (queue ? queue : Queue::global()).async([handler = std::move(handler)] {
      handler(xpcErrorConnectionInvalid());
    });
  }
  XPCObject sendMessageWithReplySync(const XPCDictionary&) override { return xpcErrorConnectionInvalid(); }
  void sendBarrier(Block<void()> block) override { events_.queue().async(std::move(block)); }
  AuditToken auditToken() const override { return {}; }
  XPCEndpoint endpoint() const override { return endpoint_; }
  std::string description() const override;

 private:
  // Of one peer that is neither admitted nor refused yet.
  struct Ticket {
    Ticket(std::weak_ptr<ConnectionCore> itsListener, std::uint32_t itsUserID)
        : listener(std::move(itsListener)), userID(itsUserID) {}
    ~Ticket() {
      if (const auto core = listener.lock()) static_cast<Listener&>(*core).ticketReturned(userID);
    }
    const std::weak_ptr<ConnectionCore> listener;
    const std::uint32_t userID;
  };

  void ready();
  int socketToAcceptFrom();
  void enter(AcceptedPeer accepted);
  void ticketReturned(std::uint32_t userID);
  void pauseAccepting();
  void stopAccepting();
  void deliverPeer(AcceptedPeer accepted);
  void fail(const std::string& reason);
  void end();

  const std::string name_;
  EventDelivery events_;
  XPCEndpoint endpoint_;

  Mutex mutex_;
  FileDescriptor accepting_ QM_GUARDED_BY(mutex_);  // of an anonymous listener
  bool isActive_ QM_GUARDED_BY(mutex_) = false;
  bool isCancelled_ QM_GUARDED_BY(mutex_) = false;
  bool isExhausted_ QM_GUARDED_BY(mutex_) = false;
  AdmissionPlaces places_ QM_GUARDED_BY(mutex_);
  int listening_ QM_GUARDED_BY(mutex_) = FileDescriptor::kNone;
  std::unique_ptr<Place> place_ QM_GUARDED_BY(mutex_);
  EventSource source_ QM_GUARDED_BY(mutex_);
};

void Listener::activate() {
  {
    MutexLock lock(mutex_);
    if (isActive_ || isCancelled_) return;
    isActive_ = true;
  }
  if (!endpoint_ && name_.empty()) return fail("neither a name nor sockets of its own");
  std::string reason;
  std::unique_ptr<Place> place;
  if (!endpoint_) {
    place = std::make_unique<Place>(openPlace(name_, reason));
    if (!*place) return fail(reason);
  }
  {
    MutexLock lock(mutex_);
    if (isCancelled_) return;
    place_ = std::move(place);
    listening_ = place_ ? place_->socket() : accepting_.get();
    source_ = EventLoop::shared().watch(listening_, {.readable = true, .writable = false},
                                        [weak = weak_from_this()](EventReadiness) {
                                          if (const auto core = weak.lock())
                                            static_cast<Listener&>(*core).ready();
                                        });
    if (source_) return;
    reason = std::strerror(errno);
  }
  fail(reason);
}

void Listener::ready() {
  for (int i = 0; i < kAcceptsPerTurn; ++i) {
    const int listening = socketToAcceptFrom();
    if (listening == FileDescriptor::kNone) return;
    AcceptedPeer accepted;
    switch (endpoint_ ? acceptFromEndpoint(listening, accepted) : acceptFromSocket(listening, accepted)) {
      case Outcome::peer:
        enter(std::move(accepted));
        break;
      case Outcome::nothing:
        break;
      case Outcome::drained:
        return;
      case Outcome::exhausted:
        return pauseAccepting();
      case Outcome::ended:
        QM_LOG_ERROR(transportLog(), "A holder of the endpoint has shut it down");
        return stopAccepting();
    }
  }
}

// None when so many are undecided that whoever is next has to wait in the kernel.
int Listener::socketToAcceptFrom() {
  MutexLock lock(mutex_);
  if (isCancelled_) return FileDescriptor::kNone;
  if (!places_.isFull()) return listening_;
  source_.setInterest({});
  return FileDescriptor::kNone;
}

void Listener::enter(AcceptedPeer accepted) {
  auto answer = AdmissionPlaces::Answer::refuse;
  {
    MutexLock lock(mutex_);
    if (isCancelled_) return accepted.hangUp();
    answer = places_.enter(accepted);
  }
  if (answer == AdmissionPlaces::Answer::place) return deliverPeer(std::move(accepted));
  if (answer == AdmissionPlaces::Answer::wait) return;
  if (answer == AdmissionPlaces::Answer::refuse)
    QM_LOG_ERROR(transportLog(), "Refusing pid %d: too many peers of user %u are not decided upon yet",
                 accepted.peer.token.processID(), accepted.userID());
  accepted.hangUp();
}

void Listener::ticketReturned(std::uint32_t userID) {
  std::optional<AcceptedPeer> next;
  {
    MutexLock lock(mutex_);
    const bool wasFull = places_.isFull();
    next = places_.leave(userID);
    if (!isCancelled_ && !isExhausted_ && wasFull && !places_.isFull())
      source_.setInterest({.readable = true, .writable = false});
  }
  if (next) deliverPeer(std::move(*next));
}

// Those who wait in the kernel's queue would wake us at once again, and in vain.
void Listener::pauseAccepting() {
  const int error = errno;
  {
    MutexLock lock(mutex_);
    if (isCancelled_) return;
    isExhausted_ = true;
    source_.setInterest({});
  }
  QM_LOG_ERROR(transportLog(), "Cannot accept: %{public}s", std::strerror(error));
  EventLoop::shared().runAfter(kAcceptPause, [weak = weak_from_this()] {
    const auto core = weak.lock();
    if (!core) return;
    auto& self = static_cast<Listener&>(*core);
    MutexLock lock(self.mutex_);
    self.isExhausted_ = false;
    if (!self.isCancelled_) self.source_.setInterest({.readable = true, .writable = false});
  });
}

// For good: from within its handler this waits for nobody.
void Listener::stopAccepting() {
  MutexLock lock(mutex_);
  source_.cancel();
}

// It has a place.
void Listener::deliverPeer(AcceptedPeer accepted) {
  auto ticket = std::make_shared<Ticket>(weak_from_this(), accepted.userID());
  auto peer = Connection::createPeer(name_, std::move(accepted.socket), std::move(accepted.peer),
                                     events_.target(), std::move(ticket));
  events_.queue().async([self = shared_from_this(), peer = XPCObject(std::move(peer))]() mutable {
    auto& listener = static_cast<Listener&>(*self);
    const XPCConnection::EventHandler handler = listener.events_.handler();
    if (!handler) return coreOf(peer).cancel();
    handler(peer);
  });
}

void Listener::cancel() {
  {
    MutexLock lock(mutex_);
    if (isCancelled_) return;
    isCancelled_ = true;
  }
  end();
}

void Listener::fail(const std::string& reason) {
  QM_LOG_ERROR(transportLog(), "Cannot listen as %{public}s: %{public}s", name_, reason);
  cancel();
}

void Listener::end() {
  EventSource source;
  std::unique_ptr<Place> place;
  FileDescriptor accepting;
  std::vector<AcceptedPeer> waiting;
  {
    MutexLock lock(mutex_);
    waiting = places_.takeWaiting();
    source = std::move(source_);
    place = std::move(place_);
    accepting = std::move(accepting_);
    listening_ = FileDescriptor::kNone;
  }
  source.cancel();  // before what it watches is closed
  place.reset();
  closeSocketElsewhere(std::move(accepting), std::nullopt);
  for (AcceptedPeer& accepted : waiting) accepted.hangUp();
  events_.queue().async([self = shared_from_this()] {
    auto& listener = static_cast<Listener&>(*self);
    if (const XPCConnection::EventHandler handler = listener.events_.takeHandler())
      handler(xpcErrorConnectionInvalid());
  });
}

std::string Listener::description() const {
  return " { name = " + (name_.empty() ? "(anonymous)" : name_) +
         ", listener = true, pid = 0, euid = 4294967295, egid = 4294967295, asid = 4294967295 }";
}

}  // namespace

std::shared_ptr<ConnectionCore> createListener(std::string serviceName, const Queue& target) {
  return std::make_shared<Listener>(std::move(serviceName), target);
}

std::shared_ptr<ConnectionCore> createAnonymousListener(const Queue& target) {
  auto listener = std::make_shared<Listener>(std::string(), target);
  std::optional<SocketPair> pair = makeSocketPair(SOCK_SEQPACKET);
  if (!pair || !receiveCredentials(pair->first.get())) {
    QM_LOG_ERROR(transportLog(), "No anonymous listener: %{public}s", std::strerror(errno));
    return listener;
  }
  receiveProcess(pair->first.get());
  listener->setPair(std::move(*pair));
  return listener;
}

}  // namespace qm::xpc
