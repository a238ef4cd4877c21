// The transport against a client that breaks its rules.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include "platform/common/disposal_lanes.hpp"
#include "platform/disposal.hpp"
#include "platform/linux/event_loop.hpp"
#include "platform/linux/run_folder.hpp"
#include "platform/linux/xpc_admission.hpp"
#include "platform/linux/xpc_channel.hpp"
#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_frame.hpp"
#include "platform/linux/xpc_limits.hpp"
#include "platform/linux/xpc_socket.hpp"
#include "support/lingering_socket.hpp"
#include "xpc_test_support.hpp"

namespace {

using xpc::FrameKind;
using Bytes = std::vector<std::uint8_t>;

const Bytes kEmptyMap{0xa0};
const Bytes kMapWithDescriptor{0xa1, 0x61, 'd', 0xd9, 0xdb, 0x27, 0x00};
// An array of them.
const Bytes kMapWithDescriptors = [] {
  Bytes result{0xa1, 0x61, 'd', 0x90};
  for (std::uint8_t i = 0; i < xpc::kMaximumDescriptors; ++i)
    for (const std::uint8_t byte : Bytes{0xd9, 0xdb, 0x27, i}) result.push_back(byte);
  return result;
}();
const Bytes kMapWithEndpoint{0xa1, 0x61, 'd', 0xd9, 0xdb, 0x28, 0x00};

// What is nobody's is closed though a user's cannot be.
void expectClosesOthers() {
  Pipe pipe;
  closeElsewhere(std::move(pipe.writeEnd));
  EXPECT_TRUE(pipe.isWriteEndClosedEverywhere());
}

class XPCWire : public ServedTest {
 protected:
  // What cannot be closed stays in the way.
  XPCWire() { setDisposalPatience(std::chrono::hours(1)); }

  RawClient greetedClient() const {
    RawClient result = RawClient::connect(name);
    result.greet();
    return result;
  }
  // The service is still there for others.
  void expectServes() const {
    const Client client(name);
    client.connection.sendMessage(textMessage("others"));
    while (const std::optional<XPCObject> event = service.events->take())
      if (textOf(*event) == "others") return;
  }
};

// While it lives the process can open only so many more descriptors.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(std::size_t spare) {
    Pipe last;  // closed behind what is still being closed, which would make room
    closeElsewhere(std::move(last.writeEnd));
    EXPECT_TRUE(last.isWriteEndClosedEverywhere());
    last.readEnd.reset();
    ::getrlimit(RLIMIT_NOFILE, &before_);
    std::vector<FileDescriptor> free;  // the lowest are given out first
    for (std::size_t i = 0; i <= spare; ++i) free.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const rlimit now{.rlim_cur = static_cast<rlim_t>(free.back().get()), .rlim_max = before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &now);
  }
  ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

TEST_F(XPCWire, WhoBreaksARuleIsDisconnectedWithALogLineAndItsDescriptorsAreClosed) {
  constexpr FrameKind kMessage = FrameKind::message;
  const struct {
    const char* reason;
    xpc::FrameHeader header;
    Bytes body;
    std::size_t descriptors;
  } cases[] = {
      {"malformed CBOR", {.kind = kMessage}, {0xa1}, 0},
      {"unused descriptor", {.kind = kMessage, .descriptors = 1}, kEmptyMap, 1},
      {"more descriptors than announced", {.kind = kMessage}, kEmptyMap, 1},
      {"fewer descriptors than announced", {.kind = kMessage, .descriptors = 2}, kMapWithDescriptor, 1},
      {"too many descriptors", {.kind = kMessage, .descriptors = 17}, kEmptyMap, 17},
      {"more descriptors than announced", {.kind = kMessage}, kEmptyMap, 253},
      {"identifier where none belongs", {.kind = kMessage, .identifier = 1}, kEmptyMap, 0},
      {"identifier missing", {.kind = FrameKind::request}, kEmptyMap, 0},
      {"content where none belongs", {.kind = FrameKind::unanswered, .identifier = 1}, kEmptyMap, 0},
      {"handshake repeated", {.kind = FrameKind::hello}, Bytes(xpc::kNonceBytes), 0},
      {"unknown kind of frame", {.kind = static_cast<FrameKind>(7)}, kEmptyMap, 0},
      {"message too long", {.kind = kMessage}, Bytes(xpc::kMaximumBodyBytes + 1), 0},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.reason);
    LogRecorder log;
    Pipe pipe;
    RawClient client = greetedClient();
    client.writeFrame(each.header, each.body, std::vector<int>(each.descriptors, pipe.writeEnd.get()));
    EXPECT_TRUE(client.isClosedByPeer());
    EXPECT_TRUE(pipe.isWriteEndClosedEverywhere());
    EXPECT_TRUE(log.hasError("Disconnecting pid " + std::to_string(::getpid()) + ": " + each.reason));
    EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
  }
  expectServes();
}

TEST_F(XPCWire, ADescriptorThatCannotBeClosedStopsNobody) {
  const struct {
    const char* where;
    xpc::FrameHeader header;
    std::vector<xpc::FrameHeader> before;
    Bytes body = kEmptyMap;
  } cases[] = {
      {"in a refused frame", {.kind = FrameKind::message, .descriptors = 1, .identifier = 1}, {}},
      {"not announced", {.kind = FrameKind::message}, {}},
      {"still in the socket", {.kind = FrameKind::message}, {{.kind = static_cast<FrameKind>(7)}}},
      {"in a reply nobody asked for", {.kind = FrameKind::reply, .descriptors = 1, .identifier = 1}, {}},
      {"in no value of a message", {.kind = FrameKind::message, .descriptors = 1}, {}},
      {"where an endpoint belongs", {.kind = FrameKind::message, .descriptors = 1}, {}, kMapWithEndpoint},
  };
  std::deque<LingeringSocket> lingering;
  for (const auto& each : cases) {
    RawClient client = greetedClient();
    LingeringSocket& descriptor = lingering.emplace_back();
    // The loop reads when everything is written, and the only descriptor is the one on its way.
    const auto stands = std::make_shared<Inbox<int>>();
    const auto goesOn = std::make_shared<Inbox<int>>();
    EventLoop::shared().runAfter({}, [stands, goesOn] {
      stands->put(1);
      goesOn->take();
    });
    stands->take();
    for (const xpc::FrameHeader& header : each.before) client.writeFrame(header, Bytes(100'000));
    client.writeFrame(each.header, each.body, std::vector{descriptor.socket.get()});
    descriptor.socket.reset();
    goesOn->put(1);
    EXPECT_TRUE(each.header.kind == FrameKind::reply || client.isClosedByPeer()) << each.where;
    expectServes();
  }
}

TEST_F(XPCWire, WhoSendsWhatCannotBeClosedIsNotReadUntilItIs) {
  std::array<LingeringSocket, kDisposalLanes> lingering;
  for (LingeringSocket& each : lingering) closeElsewhere(std::move(each.socket));
  RawClient client = greetedClient();
  Pipe pipe;
  const std::vector<int> descriptors(xpc::kMaximumDescriptors, pipe.writeEnd.get());
  const xpc::FrameHeader message{.kind = FrameKind::message, .descriptors = xpc::kMaximumDescriptors};
  const xpc::FrameHeader unasked{
      .kind = FrameKind::reply, .descriptors = xpc::kMaximumDescriptors, .identifier = 1};
  for (std::size_t i = 0; i < xpc::kMaximumHeldDescriptors / xpc::kMaximumDescriptors / 2; ++i) {
    client.writeFrame(unasked, kMapWithDescriptors, descriptors);
    client.writeFrame(message, kMapWithDescriptors, descriptors);
    EXPECT_TRUE(service.events->take()->asDictionary());
  }
  client.writeFrame({.kind = FrameKind::message}, kEmptyMap);
  expectServes();  // and not the message
  for (LingeringSocket& each : lingering) each.otherEnd.reset();
  std::optional<XPCObject> event = service.events->take();
  while (event && !event->asDictionary()) event = service.events->take();  // the other client's end
  EXPECT_TRUE(event);
}

TEST_F(XPCWire, WhatCannotBeClosedOfAPeersMessagesLeavesLanesToTheOthers) {
  const RawClient client = greetedClient();
  std::array<LingeringSocket, kDisposalLanes> lingering;
  for (LingeringSocket& each : lingering) {
    client.writeFrame({.kind = FrameKind::message, .descriptors = 1}, kMapWithDescriptor,
                      std::vector{each.socket.get()});
    const std::optional<XPCObject> event = service.events->take();
    EXPECT_TRUE(event->asDictionary().value("d"));
    each.socket.reset();
  }
  expectClosesOthers();
}

// In a process of its own, because the sockets are looked for once.
TEST(XPCPlaceDeathTest, OnlyAServiceWithANameTakesOverTheServiceManagersSocket) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto takeOver = [] {
    constexpr int kFirstPassed = 3;
    const FileDescriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr anyAddress{.sa_family = AF_UNIX, .sa_data = {}};
    if (::bind(listening.get(), &anyAddress, sizeof anyAddress.sa_family) != 0 ||
        ::listen(listening.get(), 1) != 0)
      return 1;
    if (listening.get() != kFirstPassed) ::dup2(listening.get(), kFirstPassed);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", "1", 1);
    std::string reason;
    if (xpc::openPlace("", reason)) return 2;
    return xpc::openPlace(uniqueServiceName(), reason).socket() == kFirstPassed ? 0 : 3;
  };
  EXPECT_EXIT(::_exit(takeOver()), testing::ExitedWithCode(0), "");
}

TEST(XPCListener, ARefusedPeersDescriptorThatCannotBeClosedKeepsNobodyWaiting) {
  const std::string name = uniqueServiceName();
  const XPCConnection listener = XPCConnection::createListener(name, Queue::serial("listener"));
  const auto written = std::make_shared<Inbox<bool>>();
  const auto refused = std::make_shared<Inbox<bool>>();
  listener.setEventHandler([written, refused](const XPCObject& event) {
    const XPCConnection peer = event.asConnection();
    if (!peer) return;
    written->take();
    peer.cancel();
    refused->put(true);
  });
  listener.activate();
  setDisposalPatience(std::chrono::hours(1));
  std::array<LingeringSocket, kDisposalLanes> lingering;
  for (LingeringSocket& each : lingering) {
    const RawClient client = RawClient::connect(name);
    client.writeFrame({.kind = FrameKind::message, .descriptors = 1}, kEmptyMap,
                      std::vector{each.socket.get()});
    each.socket.reset();
    written->put(true);
    EXPECT_TRUE(refused->take());
    EXPECT_TRUE(client.isClosedByPeer());
  }
  expectClosesOthers();
  listener.cancel();
}

TEST_F(XPCWire, AnotherVersionAndALongGreetingAreRefused) {
  const auto expectRefused = [this](std::size_t offset, std::uint8_t value, const char* reason) {
    LogRecorder log;
    Bytes hello(xpc::kHeaderBytes);
    xpc::writeHeader({.bodyBytes = xpc::kNonceBytes, .kind = FrameKind::hello}, hello.data());
    hello[offset] = value;
    RawClient client = RawClient::connect(name);
    client.readNonce();
    client.write(hello);
    EXPECT_TRUE(client.isClosedByPeer());
    EXPECT_TRUE(log.hasError(reason));
  };
  expectRefused(4, 2, ": another version of the wire");
  expectRefused(0, xpc::kNonceBytes + 1, ": message too long");
}

TEST_F(XPCWire, APeerThatDoesNotReadIsDisconnected) {
  LogRecorder log;
  const RawClient deaf = greetedClient();
  const XPCConnection peer = *service.peers->take();
  const XPCDictionary large = textMessage(std::string(1024 * 1024, 'x'));
  for (std::size_t i = 0; i < xpc::kMaximumQueuedBytes / (1024 * 1024) + 2; ++i) peer.sendMessage(large);
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
  EXPECT_TRUE(log.hasError(": does not read what it is sent"));
  expectServes();
}

TEST_F(XPCWire, DescriptorsForAPeerThatDoesNotReadAreBounded) {
  const RawClient deaf = greetedClient();
  const XPCConnection peer = *service.peers->take();
  peer.sendMessage(textMessage(std::string(2 * 1024 * 1024, 'x')));  // more than the socket takes
  Pipe pipe;
  const XPCObject descriptor = XPCObject::fileDescriptor(pipe.writeEnd.get());
  XPCArray many = XPCArray::create();
  for (std::size_t i = 0; i < xpc::kMaximumDescriptors; ++i) many.append(descriptor);
  XPCDictionary message = XPCDictionary::create();
  message.setValue("descriptors", many);
  for (std::size_t i = 0; i < xpc::kMaximumQueuedDescriptors / xpc::kMaximumDescriptors; ++i)
    peer.sendMessage(message);
  expectServes();
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());  // of the one that was served
  peer.sendMessage(message);
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
}

TEST_F(XPCWire, PastTheLimitOfUnansweredRequestsAPeerIsNotReadUntilSomeAreAnsweredOrItEnds) {
  RawClient eager = greetedClient();
  for (std::size_t i = 1; i <= xpc::kMaximumHeldMessages + 2; ++i)
    eager.writeFrame({.kind = FrameKind::request, .identifier = i}, kEmptyMap);
  std::deque<XPCObject> requests;
  while (requests.size() < xpc::kMaximumHeldMessages) requests.push_back(*service.events->take());
  expectServes();  // and meanwhile nothing more came from the eager one
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
  EXPECT_EQ(service.events->size(), 0U);

  answer(requests.front(), "room for one");
  requests.push_back(*service.events->take());
  EXPECT_TRUE(requests.back().asDictionary());
  constexpr int kLastWords = 50;
  for (int i = 0; i < kLastWords; ++i)
    eager.writeFrame({.kind = FrameKind::message},
                     xpc::encodeMessage(textMessage(std::to_string(i)), 0).bytes);
  eager.closeSocket();
  EXPECT_EQ(service.events->take()->asDictionary().count(), 0U) << "the last request";
  for (int i = 0; i < kLastWords; ++i) EXPECT_EQ(textOf(service.events->take()), std::to_string(i));
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
}

TEST_F(XPCWire, WhatIsUnansweredIsBoundedByItsMemoryAndNotByItsBytesOnTheWire) {
  Bytes manyNumbers{0xa1, 0x61, 'v', 0x99, 0xff, 0xf0};
  manyNumbers.resize(manyNumbers.size() + 0xfff0);  // zeros
  RawClient eager = greetedClient();
  for (const std::uint64_t identifier : {1U, 2U, 3U})
    eager.writeFrame({.kind = FrameKind::request, .identifier = identifier}, manyNumbers);
  std::deque<XPCObject> requests;
  while (requests.size() < 2) requests.push_back(*service.events->take());
  expectServes();  // and meanwhile nothing more came
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
  EXPECT_EQ(service.events->size(), 0U);
  answer(requests.front(), "room for one");
  EXPECT_EQ(service.events->take()->asDictionary().value("v").asArray().count(), 0xfff0U);
}

TEST(XPCOutbox, SmallFramesCountWithTheMemoryTheyTake) {
  xpc::Outbox outbox;
  const auto push = [&outbox] {
    outbox.push({.bytes = xpc::encodeMessage(textMessage("x"), xpc::kHeaderBytes).bytes,
                 .attachments = {},
                 .barrier = {}});
  };
  push();
  const std::size_t one = outbox.bytes();
  EXPECT_GE(one, sizeof(xpc::OutgoingFrame) + 512);
  push();
  EXPECT_EQ(outbox.bytes(), 2 * one);
  std::optional<xpc::SocketPair> pair = xpc::makeSocketPair(SOCK_STREAM);
  std::vector<Block<void()>> passed;
  EXPECT_EQ(outbox.write(pair->first.get(), passed), xpc::Outbox::Result::drained);
  EXPECT_EQ(outbox.bytes(), 0U);
}

// The listener's side of a channel of its own, with deadlines a test can wait for.
struct LoneChannel : xpc::ChannelDelegate {
  void channelReceived(const std::shared_ptr<xpc::Channel>&, xpc::Frame, xpc::Hold) override {
    received.put(1);
  }
  void channelClosed(const std::shared_ptr<xpc::Channel>&) override { closed.put(1); }
  Inbox<int> received;
  Inbox<int> closed;
};

TEST(XPCChannel, DeadlinesEndWhoNeverGreetsAndWhoNeverFinishes) {
  LogRecorder log;
  const struct {
    bool greets;
    const char* reason;
  } cases[] = {{false, ": no hello in time"}, {true, ": message not finished in time"}};
  for (const auto& each : cases) {
    std::optional<xpc::SocketPair> pair = xpc::makeSocketPair(SOCK_STREAM);
    ASSERT_TRUE(pair);
    const auto delegate = std::make_shared<LoneChannel>();
    const std::chrono::milliseconds shortly{20};
    const std::chrono::milliseconds never = std::chrono::hours(1);
    const auto channel =
        std::make_shared<xpc::Channel>(xpc::Channel::Role::listener, delegate,
                                       xpc::ChannelDeadlines{.hello = each.greets ? never : shortly,
                                                             .frame = each.greets ? shortly : never});
    std::optional<xpc::Peer> peer = xpc::peerOfSocket(pair->first.get());
    channel->start(std::move(pair->first), std::move(peer));
    RawClient client(std::move(pair->second));
    if (each.greets) {
      client.greet();
      client.writeFrame({.kind = FrameKind::message}, kEmptyMap);
      client.write(Bytes{1, 0, 0});
    } else {
      client.readNonce();
    }
    EXPECT_TRUE(client.isClosedByPeer());
    EXPECT_TRUE(delegate->closed.take());
    EXPECT_EQ(delegate->received.size(), each.greets ? 1U : 0U);
    EXPECT_TRUE(log.hasError(each.reason));
  }
}

TEST(XPCAdmission, AUserPastItsShareWaitsOrIsRefusedAndOthersAreNotTouched) {
  using Answer = xpc::AdmissionPlaces::Answer;
  xpc::AdmissionPlaces places;
  std::uint32_t process = 0;
  const auto enter = [&](std::uint32_t userID, std::size_t times, Answer expected,
                         FileDescriptor socket = {}) {
    for (std::size_t i = 0; i < times; ++i) {
      xpc::AcceptedPeer peer{.socket = std::move(socket), .peer = {}};
      peer.peer.token.words[1] = userID;
      peer.peer.token.words[5] = ++process;
      ASSERT_FALSE(places.isFull());
      ASSERT_EQ(places.enter(peer), expected) << "user " << userID << ", " << i;
    }
  };
  enter(1, xpc::kMaximumUndecidedPeersPerUser, Answer::place);
  enter(1, xpc::kMaximumWaitingPeersPerUser - 1, Answer::wait);
  std::optional<xpc::SocketPair> hangUp = xpc::makeSocketPair(SOCK_STREAM);
  enter(1, 1, Answer::wait, std::move(hangUp->first));
  enter(1, 1, Answer::refuse);
  hangUp = {};
  enter(1, 1, Answer::wait);
  enter(1, 1, Answer::refuse);
  enter(2, 1, Answer::place);
  EXPECT_FALSE(places.leave(2)) << "nobody of this user waits";
  const auto next = places.leave(1);
  ASSERT_TRUE(next);
  EXPECT_EQ(next->peer.token.words[5], xpc::kMaximumUndecidedPeersPerUser + 1) << "first come, first served";
  enter(1, 1, Answer::wait);
  for (std::uint32_t user = 2; user <= 3; ++user) {
    enter(user, xpc::kMaximumUndecidedPeersPerUser, Answer::place);
    enter(user, xpc::kMaximumWaitingPeersPerUser, Answer::wait);
  }
  enter(4, xpc::kMaximumUndecidedPeersPerUser - 1, Answer::place);
  EXPECT_EQ(places.takeWaiting().size(), 3 * xpc::kMaximumWaitingPeersPerUser);
  enter(4, 1, Answer::place);
  EXPECT_TRUE(places.isFull());
  EXPECT_FALSE(places.leave(3));
  EXPECT_FALSE(places.isFull());
}

// While it lives the user has as many closings that wait as one may have.
class CloggedUser {
 public:
  explicit CloggedUser(std::uint32_t userID) {
    setDisposalPatience(std::chrono::hours(1));
    for (LingeringSocket& each : lingering_) closeElsewhere(std::move(each.socket), userID);
    for (std::size_t i = 0; i < kMaximumClosingsBehind; ++i) runOnDisposalLane([] {}, userID);
  }

 private:
  std::array<LingeringSocket, kDisposalLanes / 2> lingering_;
};

TEST(XPCAdmission, AUserWithTooManyFilesThatCannotBeClosedIsRefusedAndRootIsNot) {
  using Answer = xpc::AdmissionPlaces::Answer;
  const CloggedUser root(0);
  const CloggedUser user(501);
  xpc::AdmissionPlaces places;
  for (const auto& [userID, expected] : {std::pair(0U, Answer::place), {501U, Answer::clogged}}) {
    xpc::AcceptedPeer peer;
    peer.peer.token.words[1] = userID;
    EXPECT_EQ(places.enter(peer), expected);
  }
}

TEST(XPCChannel, AUserWithTooManyFilesThatCannotBeClosedBringsNoOtherOnAnOldConnection) {
  LogRecorder log;
  const std::uint32_t userID = ::getuid() == 0 ? 501 : ::getuid();
  std::optional<xpc::SocketPair> pair = xpc::makeSocketPair(SOCK_STREAM);
  ASSERT_TRUE(pair);
  const auto delegate = std::make_shared<LoneChannel>();
  const auto channel = std::make_shared<xpc::Channel>(xpc::Channel::Role::listener, delegate);
  channel->start(std::move(pair->first),
                 xpc::peerFromCredentials({.pid = ::getpid(), .uid = userID, .gid = ::getgid()}, {}));
  const RawClient client(std::move(pair->second));
  std::thread([&] {
    // This thread's alone, unlike with the library's function.
    if (::getuid() == 0) {
      EXPECT_EQ(::syscall(SYS_setresuid, userID, userID, userID), 0);
    }
    client.greet();
    const Pipe pipe;
    const auto send = [&](std::uint16_t count) {
      client.writeFrame({.kind = FrameKind::message, .descriptors = count}, kEmptyMap,
                        std::vector<int>(count, pipe.writeEnd.get()));
      EXPECT_TRUE(delegate->received.take());
    };
    send(1);
    const CloggedUser user(userID);
    send(0);
    client.writeFrame({.kind = FrameKind::message, .descriptors = 1}, kEmptyMap,
                      std::vector{pipe.writeEnd.get()});
    EXPECT_TRUE(client.isClosedByPeer());
  }).join();
  EXPECT_TRUE(delegate->closed.take());
  EXPECT_TRUE(log.hasError(": too many files of its user cannot be closed"));
}

TEST(XPCListener, WhoWaitsBehindItsUsersShareIsServedWhenAnotherIsRefused) {
  const std::string name = uniqueServiceName();
  const XPCConnection listener = XPCConnection::createListener(name);
  const auto undecided = std::make_shared<Inbox<XPCConnection>>();
  listener.setEventHandler([undecided](const XPCObject& event) {
    if (const XPCConnection peer = event.asConnection()) undecided->put(peer);
  });
  listener.activate();
  std::deque<RawClient> clients;
  for (std::size_t i = 0; i < xpc::kMaximumUndecidedPeersPerUser + 2; ++i)
    clients.push_back(RawClient::connect(name));
  std::vector<XPCConnection> peers;
  while (peers.size() < xpc::kMaximumUndecidedPeersPerUser) peers.push_back(*undecided->take());
  peers.front().cancel();
  EXPECT_TRUE(clients.front().isClosedByPeer());
  const XPCConnection next = *undecided->take();
  listener.cancel();
  EXPECT_TRUE(clients.back().isClosedByPeer()) << "nobody can decide upon it any more";
  for (const XPCConnection& peer : peers) peer.cancel();
  next.cancel();
}

// The undefined-behaviour sanitizer opens pipes to look at objects, and takes them for broken when it cannot.
constexpr const char* kSanitizerReason = "the sanitizer needs descriptors itself";
bool sanitizerNeedsDescriptors() {
  return ::dlsym(RTLD_DEFAULT, "__asan_init") != nullptr;
}

TEST_F(XPCWire, OutOfDescriptorsTheListenerWaitsAndGoesOn) {
  if (sanitizerNeedsDescriptors()) GTEST_SKIP() << kSanitizerReason;
  LogRecorder log;
  RawClient first = greetedClient();  // everything that is made once is made by now
  RawClient client(FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)));
  const auto address = SocketAddress::create(socketPath(name));
  {
    const DescriptorLimit exhausted(0);
    ASSERT_EQ(::connect(client.socket(), address->address(), address->length()), 0);
    while (!log.hasError("Cannot accept: ")) std::this_thread::yield();
  }
  client.greet();
  client.writeFrame({.kind = FrameKind::message}, kEmptyMap);
  EXPECT_TRUE(service.events->take()->asDictionary());
}

TEST_F(XPCWire, OutOfDescriptorsAClientDeliversWhatWasSentThoughItIsLetGo) {
  if (sanitizerNeedsDescriptors()) GTEST_SKIP() << kSanitizerReason;
  // It stays: everything that is made once is made by now, and nothing is being closed.
  const Client first(name);
  first.connection.sendMessage(textMessage("first"));
  EXPECT_EQ(textOf(service.events->take()), "first");
  {
    const DescriptorLimit exhausted(0);
    const XPCConnection client = XPCConnection::createClient(name);
    client.setEventHandler([](const XPCObject&) {});
    client.activate();
    client.sendMessage(textMessage("last words"));
  }
  EXPECT_EQ(textOf(service.events->take()), "last words");
}

TEST_F(XPCWire, DescriptorsThatCannotBeTakenEndTheConnectionOnly) {
  if (sanitizerNeedsDescriptors()) GTEST_SKIP() << kSanitizerReason;
  LogRecorder log;
  RawClient client = greetedClient();
  Pipe pipe;
  {
    const DescriptorLimit scarce(4);
    client.writeFrame({.kind = FrameKind::message, .descriptors = 5}, kMapWithDescriptor,
                      std::vector<int>(5, pipe.writeEnd.get()));
    EXPECT_TRUE(client.isClosedByPeer());
  }
  EXPECT_TRUE(log.hasError(": descriptors were lost on the way"));
  EXPECT_TRUE(pipe.isWriteEndClosedEverywhere());
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
  expectServes();
}

}  // namespace
