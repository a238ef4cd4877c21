#include "daemon/peers.hpp"

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
    context.requestHandlingQueue = RequestQueue(Queue::concurrent("com.quillmarsh.reputationhandlingqueue"));
    context.makeProvider = [this] {
      auto provider = std::make_shared<SubstituteProvider>();
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

}  // namespace
