// The transport against a client that breaks its rules.
#include <dlfcn.h>
#include <sys/resource.h>

#include "platform/linux/run_folder.hpp"
#include "platform/linux/xpc_channel.hpp"
#include "platform/linux/xpc_frame.hpp"
#include "platform/linux/xpc_limits.hpp"
#include "platform/linux/xpc_socket.hpp"
#include "xpc_test_support.hpp"

namespace {

using xpc::FrameKind;
using Bytes = std::vector<std::uint8_t>;

const Bytes kEmptyMap{0xa0};
const Bytes kMapWithDescriptor{0xa1, 0x61, 'd', 0xd9, 0xdb, 0x27, 0x00};

class XPCWire : public ServedTest {
 protected:
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

TEST_F(XPCWire, PastTheLimitOfUnansweredRequestsAPeerIsNotReadUntilSomeAreAnsweredButItsEndIsNoticed) {
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
  eager.closeSocket();
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
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
