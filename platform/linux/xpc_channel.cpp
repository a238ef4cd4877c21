#include "platform/linux/xpc_channel.hpp"

#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "platform/common/disposal_lanes.hpp"
#include "platform/linux/xpc_disposal.hpp"
#include "platform/linux/xpc_socket.hpp"

namespace qm::xpc {
namespace {

constexpr std::size_t kReadBytes = 64 * 1024;
// Reads of one socket before others get their turn.
constexpr int kReadsPerTurn = 4;

// Only the loop's thread reads.
std::span<std::uint8_t> readBuffer() {
  static std::array<std::uint8_t, kReadBytes> buffer;
  return buffer;
}

OutgoingFrame nonceFrame(FrameKind kind, const Nonce& nonce) {
  OutgoingFrame frame;
  frame.bytes.resize(kHeaderBytes + kNonceBytes);
  writeHeader({.bodyBytes = kNonceBytes, .kind = kind}, frame.bytes.data());
  std::memcpy(frame.bytes.data() + kHeaderBytes, nonce.data(), nonce.size());
  return frame;
}

std::optional<std::uint32_t> userOf(const Peer& peer) {
  return peer.token.effectiveUserID();
}

bool fillRandom(Nonce& nonce) {
  return ::getrandom(nonce.data(), nonce.size(), 0) == static_cast<ssize_t>(nonce.size());
}

// Why a frame of this kind cannot stand here, or null.
const char* checkFrame(const Frame& frame) {
  const FrameHeader& header = frame.header;
  switch (header.kind) {
    case FrameKind::welcome:
    case FrameKind::hello:
      return "handshake repeated";
    case FrameKind::message:
      return header.identifier == 0 ? nullptr : "identifier where none belongs";
    case FrameKind::request:
    case FrameKind::reply:
      return header.identifier != 0 ? nullptr : "identifier missing";
    case FrameKind::unanswered:
      if (header.identifier == 0) return "identifier missing";
      return header.bodyBytes == 0 && header.descriptors == 0 ? nullptr : "content where none belongs";
  }
  return "unknown kind of frame";
}

}  // namespace

Log& transportLog() {
  static Log& log = Log::create(kQMRLogSubsystem, "xpc");
  return log;
}

Hold::~Hold() {
  if (channel_) channel_->release(cost_);
}

void Hold::setValues(std::size_t values) {
  const std::size_t surplus = (values_ - values) * kBytesPerValue;
  values_ = values;
  cost_.bytes -= surplus;
  channel_->release({.bytes = surplus});
}

Channel::Channel(Role role, std::weak_ptr<ChannelDelegate> delegate, ChannelDeadlines deadlines)
    : role_(role), delegate_(std::move(delegate)), deadlines_(deadlines) {
  reader_.setMaximumBody(kNonceBytes);
}

void Channel::start(FileDescriptor socket, std::optional<Peer> peer) {
  {
    MutexLock lock(mutex_);
    if (state_ != State::waiting)
      return closeSocketElsewhere(std::move(socket), peer ? userOf(*peer) : std::nullopt);
    state_ = State::handshake;
    socket_ = std::move(socket);
    knowsPeer_ = peer.has_value();
    if (peer) peer_ = std::move(*peer);
  }
  EventLoop::shared().runAfter({}, [self = shared_from_this()] { self->begin(); });
}

bool Channel::send(OutgoingFrame frame) {
  Written written;
  {
    MutexLock writing(writing_);
    bool isWritable = false;
    {
      MutexLock lock(mutex_);
      if (state_ == State::closing || state_ == State::closed || isDeaf_) return false;
      isWritable = state_ == State::open && !isBlocked_ && !isRetrying_;
    }
    outbox_.push(std::move(frame));
    if (outbox_.bytes() > kMaximumQueuedBytes || outbox_.descriptors() > kMaximumQueuedDescriptors)
      written.failure = "does not read what it is sent";
    else if (isWritable)
      write(written);
  }
  conclude(written);
  return true;
}

void Channel::close(const char* reason) {
  std::int32_t process = 0;
  {
    MutexLock lock(mutex_);
    if (state_ == State::closing || state_ == State::closed) return;
    state_ = State::closing;
    isRefused_ = reason != nullptr;
    process = peer_.token.processID();
  }
  if (reason != nullptr) QM_LOG_ERROR(transportLog(), "Disconnecting pid %d: %{public}s", process, reason);
  EventLoop::shared().runAfter({}, [self = shared_from_this()] { self->finish(); });
}

void Channel::closeWhenDrained() {
  {
    MutexLock writing(writing_);
    MutexLock lock(mutex_);
    if (state_ == State::closing || state_ == State::closed) return;
    if (state_ != State::waiting && !outbox_.empty()) {
      lingering_ = shared_from_this();
      return;
    }
  }
  close(nullptr);
}

bool Channel::isRefused() const {
  MutexLock lock(mutex_);
  return isRefused_;
}

AuditToken Channel::token() const {
  MutexLock lock(mutex_);
  return peer_.token;
}

void Channel::begin() {
  EventLoop& loop = EventLoop::shared();
  int socket = FileDescriptor::kNone;
  int process = FileDescriptor::kNone;
  {
    MutexLock lock(mutex_);
    if (state_ != State::handshake) return;
    socket = socket_.get();
    process = role_ == Role::listener ? peer_.process.get() : FileDescriptor::kNone;
  }
  if (!receiveCredentials(socket)) return close("no credentials to be had");
  EventSource source = loop.watch(socket, {}, [weak = weak_from_this()](EventReadiness readiness) {
    if (const auto self = weak.lock()) self->ready(readiness);
  });
  if (!source) return close("socket that cannot be watched");
  {
    MutexLock lock(mutex_);
    source_ = std::move(source);
  }
  if (process != FileDescriptor::kNone) {
    processSource_ =
        loop.watch(process, {.readable = true, .writable = false}, [weak = weak_from_this()](EventReadiness) {
          if (const auto self = weak.lock()) self->processEnded();
        });
    if (!processSource_) return close("process that cannot be watched");
  }
  if (role_ == Role::listener && !sendWelcome()) return close(nullptr);
  MutexLock lock(mutex_);
  updateInterest();
}

bool Channel::sendWelcome() {
  if (!fillRandom(nonce_)) return false;
  OutgoingFrame frame = nonceFrame(FrameKind::welcome, nonce_);
  iovec piece{.iov_base = frame.bytes.data(), .iov_len = frame.bytes.size()};
  int socket = FileDescriptor::kNone;
  {
    MutexLock lock(mutex_);
    socket = socket_.get();
  }
  // The first bytes on the socket: there is room.
  if (sendWithDescriptors(socket, std::span(&piece, 1), {}) != static_cast<ssize_t>(frame.bytes.size()))
    return false;
  helloTimer_ = EventLoop::shared().runAfter(deadlines_.hello, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->close("no hello in time");
  });
  return true;
}

void Channel::ready(const EventReadiness& readiness) {
  if (readiness.writable) flush();
  if (readiness.hangUp || hasHungUp_) return readToTheEnd();
  if (readiness.readable) read(kReadsPerTurn);
}

// What the process wrote before its end is in the socket by now.
void Channel::processEnded() {
  processSource_.cancel();
  readToTheEnd();
  close(nullptr);
}

void Channel::read(int maximumReads) {
  bool isDrained = false;
  for (int i = 0; isReading() && i < maximumReads && !isDrained; ++i)
    if (!readOnce(isDrained)) return;
  guardPartialFrame();
}

// Whoever is gone sends nothing more: what it sent is delivered, full or not. It is no more than a socket
// holds.
void Channel::readToTheEnd() {
  hasHungUp_ = true;
  {
    MutexLock lock(mutex_);
    isPaused_ = false;
  }
  if (process()) read(std::numeric_limits<int>::max());
}

bool Channel::readOnce(bool& isDrained) {
  int socket = FileDescriptor::kNone;
  {
    MutexLock lock(mutex_);
    socket = socket_.get();
  }
  Received received = receive(socket, readBuffer());
  if (received.length < 0 && received.error == EAGAIN) {
    isDrained = true;
    return true;
  }
  if (received.length <= 0) {
    close(nullptr);
    return false;
  }
  if (!checkSender(received)) return false;
  const auto length = static_cast<std::size_t>(received.length);
  reader_.feed(readBuffer().first(length), std::move(received.descriptors));
  isDrained = length < kReadBytes && !hasHungUp_;
  return process();
}

// A client learns with the first bytes who serves it: the socket itself only knows who made it.
bool Channel::checkSender(const Received& received) {
  const std::optional<ucred>& sender = received.sender;
  if (!sender) {
    close("message without credentials");
    return false;
  }
  bool isSame = false;
  {
    MutexLock lock(mutex_);
    if (!knowsPeer_) {
      peer_ = peerFromCredentials(*sender, {});
      knowsPeer_ = true;
    }
    isSame = isSameProcess(peer_.token, *sender);
  }
  if (!isSame) {
    QM_LOG_ERROR(transportLog(), "Message from pid %d with uid %u on a connection that is not its own",
                 sender->pid, sender->uid);
    close("message from another process");
    return false;
  }
  if (!received.descriptors.empty() && hasTooManyClosings(sender->uid)) {
    close("too many files of its user cannot be closed");
    return false;
  }
  if (received.isTruncated) close("descriptors were lost on the way");
  return !received.isTruncated;
}

bool Channel::process() {
  while (!pauseIfFull()) {
    Frame frame;
    switch (reader_.next(frame)) {
      case FrameReader::Step::frame:
        break;
      case FrameReader::Step::incomplete:
        return true;
      case FrameReader::Step::refused:
        close(reader_.refusal());
        return false;
    }
    if (!handle(frame)) return false;
  }
  return true;
}

bool Channel::handle(Frame& frame) {
  State state = State::closed;
  {
    MutexLock lock(mutex_);
    state = state_;
  }
  if (state == State::handshake) return role_ == Role::client ? handleWelcome(frame) : handleHello(frame);
  if (state != State::open) return false;
  if (const char* reason = checkFrame(frame)) {
    close(reason);
    return false;
  }
  holdDescriptors(frame);
  const auto delegate = delegate_.lock();
  if (!delegate) return true;
  const bool isHeld = frame.header.kind == FrameKind::message || frame.header.kind == FrameKind::request;
  Hold held = isHeld ? holdMessage(frame) : Hold();
  delegate->channelReceived(shared_from_this(), std::move(frame), std::move(held));
  return true;
}

bool Channel::handleWelcome(const Frame& frame) {
  if (frame.header.kind != FrameKind::welcome || frame.body.size() != kNonceBytes ||
      !frame.descriptors.empty()) {
    close("no welcome");
    return false;
  }
  std::memcpy(nonce_.data(), frame.body.data(), kNonceBytes);
  open(nonceFrame(FrameKind::hello, nonce_));
  return true;
}

bool Channel::handleHello(const Frame& frame) {
  if (frame.header.kind != FrameKind::hello || frame.body.size() != kNonceBytes ||
      !frame.descriptors.empty() || std::memcmp(frame.body.data(), nonce_.data(), kNonceBytes) != 0) {
    close("wrong hello");
    return false;
  }
  if (helloTimer_) EventLoop::shared().cancelTimer(*std::exchange(helloTimer_, std::nullopt));
  open(std::nullopt);
  return true;
}

void Channel::open(std::optional<OutgoingFrame> first) {
  reader_.setMaximumBody(kMaximumBodyBytes);
  Written written;
  {
    MutexLock writing(writing_);
    {
      MutexLock lock(mutex_);
      if (state_ != State::handshake) return;
      state_ = State::open;
    }
    if (first) outbox_.pushFront(std::move(*first));
    write(written);
  }
  conclude(written);
}

// One timer for the frame that is half there.
void Channel::guardPartialFrame() {
  const bool isPartial = reader_.hasPartialFrame() && isReading();
  if (isPartial && frameTimer_ && timedFrame_ == reader_.count()) return;
  if (frameTimer_) EventLoop::shared().cancelTimer(*std::exchange(frameTimer_, std::nullopt));
  if (!isPartial) return;
  timedFrame_ = reader_.count();
  frameTimer_ = EventLoop::shared().runAfter(deadlines_.frame, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->close("message not finished in time");
  });
}

void Channel::finish() {
  EventSource source;
  std::vector<Block<void()>> passed;
  std::shared_ptr<Channel> lingering;
  {
    MutexLock lock(mutex_);
    if (state_ == State::closed) return;
    state_ = State::closed;
    source = std::move(source_);
  }
  source.cancel();
  processSource_.cancel();
  for (std::optional<EventLoop::Timer>* timer : {&helloTimer_, &frameTimer_})
    if (*timer) EventLoop::shared().cancelTimer(*std::exchange(*timer, std::nullopt));
  reader_ = {};
  {
    MutexLock writing(writing_);
    outbox_.discard(passed);
    MutexLock lock(mutex_);
    closeSocketElsewhere(std::move(socket_), knowsPeer_ ? userOf(peer_) : std::nullopt);
    peer_.process.reset();
    lingering = std::move(lingering_);
  }
  for (const Block<void()>& barrier : passed) barrier();
  if (const auto delegate = delegate_.lock()) delegate->channelClosed(shared_from_this());
}

void Channel::flush() {
  Written written;
  {
    MutexLock writing(writing_);
    bool isOpen = false;
    {
      MutexLock lock(mutex_);
      isRetrying_ = false;
      isBlocked_ = false;
      isOpen = state_ == State::open;
    }
    if (isOpen) write(written);
  }
  conclude(written);
}

Hold Channel::hold(const HeldCost& cost, std::size_t values) {
  MutexLock lock(mutex_);
  held_.messages += cost.messages;
  held_.bytes += cost.bytes;
  held_.descriptors += cost.descriptors;
  return Hold(shared_from_this(), cost, values);
}

Hold Channel::holdMessage(const Frame& frame) {
  const std::size_t values = std::min(frame.body.size(), kMaximumValues);
  return hold({.messages = 1, .bytes = kHeaderBytes + frame.body.size() + values * kBytesPerValue}, values);
}

// They count until the last of them is closed: whoever sends what cannot be closed is not read.
void Channel::holdDescriptors(Frame& frame) {
  if (frame.descriptors.empty()) return;
  const auto held = std::make_shared<const Hold>(hold({.descriptors = frame.descriptors.size()}));
  for (PassedDescriptor& descriptor : frame.descriptors) descriptor.keepUntilClosed(held);
}

void Channel::release(const HeldCost& cost) {
  {
    MutexLock lock(mutex_);
    held_.messages -= cost.messages;
    held_.bytes -= cost.bytes;
    held_.descriptors -= cost.descriptors;
    if (!isPaused_ || isFull()) return;
    isPaused_ = false;
  }
  EventLoop::shared().runAfter({}, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || !self->isReading()) return;
    if (self->process()) self->guardPartialFrame();
    MutexLock lock(self->mutex_);
    self->updateInterest();
  });
}

bool Channel::pauseIfFull() {
  MutexLock lock(mutex_);
  if (!isPaused_ && !hasHungUp_ && isFull()) {
    isPaused_ = true;
    updateInterest();
  }
  return isPaused_;
}

bool Channel::isReading() const {
  MutexLock lock(mutex_);
  return !isPaused_ && (state_ == State::handshake || state_ == State::open);
}

bool Channel::isFull() const {
  return held_.messages >= kMaximumHeldMessages || held_.bytes >= kMaximumHeldBytes ||
         held_.descriptors >= kMaximumHeldDescriptors;
}

void Channel::write(Written& written) {
  int socket = FileDescriptor::kNone;
  {
    MutexLock lock(mutex_);
    socket = socket_.get();
  }
  // Nobody closes it before the end of the write.
  const Outbox::Result result = outbox_.write(socket, written.passed);
  if (result == Outbox::Result::failed) written.failure = std::strerror(errno);
  if (result == Outbox::Result::ended) outbox_.discard(written.passed);
  if (result == Outbox::Result::retry) {
    EventLoop::shared().runAfter(kSendPause, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->flush();
    });
  }
  MutexLock lock(mutex_);
  isBlocked_ = result == Outbox::Result::blocked;
  isRetrying_ = result == Outbox::Result::retry;
  // The reading side finds the end, behind whatever the peer still sent.
  if (result == Outbox::Result::ended) isDeaf_ = true;
  written.isLast = lingering_ != nullptr && state_ == State::open && outbox_.empty();
  updateInterest();
}

void Channel::updateInterest() {
  const bool isAlive = state_ == State::handshake || state_ == State::open;
  const EventInterest wanted{.readable = isAlive && !isPaused_, .writable = isAlive && isBlocked_};
  if (!source_ || (wanted.readable == interest_.readable && wanted.writable == interest_.writable)) return;
  interest_ = wanted;
  source_.setInterest(wanted);
}

void Channel::conclude(const Written& written) {
  for (const Block<void()>& barrier : written.passed) barrier();
  if (written.failure != nullptr) return close(written.failure);
  if (written.isLast) close(nullptr);
}

}  // namespace qm::xpc
