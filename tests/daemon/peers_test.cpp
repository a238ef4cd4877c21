#include "daemon/peers.hpp"

#include <poll.h>
#include <sys/mman.h>

#include "daemon/daemon_support.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

namespace {

// Finds every program valid, when it is asked about two at once.
class BothAtOnceVerifier final : public QMRSignatureVerifier {
 public:
  std::shared_ptr<QMRSignatureVerificationResult> verifyAuditToken(
      const AuditToken&, const std::optional<std::string>&) const override {
    both_.arrive_and_wait();
    return std::make_shared<QMRSignatureVerificationResult>();
  }

 private:
  mutable std::latch both_{2};
};

class Peers : public ::testing::Test {
 protected:
  void SetUp() override {
    ListenerContext context;
    context.validator = std::make_shared<QRMXPCConnectionValidator>();
    context.validator->setSignatureVerifier(std::make_shared<BothAtOnceVerifier>());
    context.requestHandlingQueue =
        RequestQueue(Queue::concurrent("com.quillmarsh.reputationhandlingqueue"), 2);
    context.makeProvider = [this] {
      auto provider = std::make_shared<SubstituteProvider>(answer_);
      providers_.put(provider);
      return provider;
    };
    listener_.setEventHandler([context](const XPCObject& event) {
      if (event.type() == XPCType::connection) dispatch_listener_event(context, event);
    });
    listener_.activate();
  }
  void TearDown() override { listener_.cancel(); }
  std::size_t livingProviders() const {
    const auto providers = providers_.waitFor(2);
    return static_cast<std::size_t>(
        std::ranges::count_if(providers, [](const auto& p) { return !p.expired(); }));
  }

  // Answers when it is let.
  Inbox<std::string> asked_;
  std::latch answers_{1};
  const SubstituteProvider::Answer answer_ = [this](const auto& request, const auto& reply) {
    asked_.put(request->path());
    answers_.wait();
    reply(nullptr, makeError("com.example", 1));
  };
  LogRecorder recorder_;
  const XPCConnection listener_ = XPCConnection::createAnonymousListener();
  Inbox<std::weak_ptr<SubstituteProvider>> providers_;
};

TEST_F(Peers, EachPeerHasAProviderOfItsOwnThatEndsWithItAndNoneWaitsForAnothersVerification) {
  std::optional<ReputationPeer> first(listener_.endpoint());
  const ReputationPeer second(listener_.endpoint());
  first->waitUntilSeen();
  second.waitUntilSeen();
  EXPECT_TRUE(recorder_.has(LogLevel::debug, "==== Will use reputation provider <substitute>"));

  // Which of the two is whose is not said: the answer pushed through one reaches exactly one.
  const auto result =
      std::make_shared<QMRFileReputationResult>("/tmp/x", 501, 0, std::optional<std::string>("Bad"), 3, 60);
  for (const auto& each : providers_.waitFor(2)) {
    const auto provider = each.lock();
    EXPECT_EQ(provider->baseMetadata(), (Dictionary{{"context", "local_file"}}));
    provider->delayedResponseCallback()(result, nullptr);
  }
  first->waitUntilSeen();
  second.waitUntilSeen();
  ASSERT_EQ(first->unasked().size(), 1U);
  ASSERT_EQ(second.unasked().size(), 1U);
  EXPECT_TRUE(recorder_.hasContaining(LogLevel::standard, "Forwarding delayed reputation response "));

  first.reset();
  EXPECT_TRUE(eventually([&] { return livingProviders() < 2; }));
  EXPECT_EQ(livingProviders(), 1U) << "one of the two has gone with its peer";
}

TEST_F(Peers, OneThatIsGoneLeavesNoRequestsWaiting) {
  std::optional<ReputationPeer> first(listener_.endpoint());
  const ReputationPeer second(listener_.endpoint());
  const FileDescriptor file(::memfd_create("file", MFD_CLOEXEC));
  ASSERT_EQ(::write(file.get(), "x", 1), 1);
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const FileDescriptor readEnd(ends[0]);
  FileDescriptor writeEnd(ends[1]);

  first->send(requestFor("hung", file.get(), 1));
  EXPECT_EQ(asked_.waitForOne(), "hung");
  first->send(requestFor("waits for nobody", writeEnd.get(), 1));
  writeEnd = {};
  const auto reply = second.send(requestFor("waits", file.get(), 1));
  first->waitUntilSeen();
  second.waitUntilSeen();
  first.reset();
  pollfd allWriteEndsClosed{.fd = readEnd.get(), .events = 0, .revents = 0};
  EXPECT_EQ(::poll(&allWriteEndsClosed, 1, std::chrono::milliseconds(kPatience).count()), 1);
  answers_.count_down();
  EXPECT_EQ(reply->waitForOne().type(), XPCType::dictionary);
  EXPECT_THAT(asked_.waitFor(2), ::testing::ElementsAre("hung", "waits"));
}

}  // namespace
