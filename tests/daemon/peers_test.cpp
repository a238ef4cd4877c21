#include "daemon/peers.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>

#include "daemon/daemon_support.hpp"
#include "support/log_recorder.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

namespace qm::test {
namespace {

// Finds every program valid; the first check does not return before a later one has begun.
class FirstHangsVerifier final : public QMRSignatureVerifier {
 public:
  std::shared_ptr<QMRSignatureVerificationResult> verifyAuditToken(
      const AuditToken&, const std::optional<std::string>&) const override {
    if (calls_++ > 0)
      later_.set_value();
    else if (later_.get_future().wait_for(kPatience) != std::future_status::ready)
      ADD_FAILURE() << "the second peer waits for the first";
    return std::make_shared<QMRSignatureVerificationResult>();
  }

 private:
  mutable std::atomic<int> calls_ = 0;
  mutable std::promise<void> later_;
};

class Peers : public ::testing::Test {
 protected:
  void SetUp() override {
    ListenerContext context;
    context.validator = std::make_shared<QRMXPCConnectionValidator>();
    context.validator->setSignatureVerifier(std::make_shared<FirstHangsVerifier>());
    context.requestHandlingQueue = Queue::concurrent("com.quillmarsh.reputationhandlingqueue");
    context.makeProvider = [this] {
      auto provider = std::make_shared<SubstituteProvider>();
      const std::lock_guard lock(mutex_);
      providers_.push_back(provider);
      return provider;
    };
    listener_.setEventHandler([context](const XPCObject& event) {
      if (event.type() == XPCType::connection) dispatch_listener_event(context, event);
    });
    listener_.activate();
  }
  void TearDown() override { listener_.cancel(); }
  std::vector<std::shared_ptr<SubstituteProvider>> providers() {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<SubstituteProvider>> living;
    for (const auto& provider : providers_)
      if (auto strong = provider.lock()) living.push_back(std::move(strong));
    return living;
  }

  LogRecorder recorder_;
  XPCConnection listener_ = XPCConnection::createAnonymousListener();

 private:
  std::mutex mutex_;
  std::vector<std::weak_ptr<SubstituteProvider>> providers_;
};

TEST_F(Peers, EachPeerHasAProviderOfItsOwnThatEndsWithItAndNoneWaitsForAnothersVerification) {
  std::optional<Client> first(listener_.endpoint());
  Client second(listener_.endpoint());
  first->waitUntilSeen();
  second.waitUntilSeen();
  ASSERT_EQ(providers().size(), 2U);
  EXPECT_TRUE(recorder_.has(LogLevel::debug, "==== Will use reputation provider <substitute>"));

  // Which of the two is whose is not said: the answer pushed through one reaches exactly one.
  const auto result =
      std::make_shared<QMRFileReputationResult>("/tmp/x", 501, 0, std::optional<std::string>("Bad"), 3, 60);
  for (const auto& provider : providers()) {
    EXPECT_EQ(provider->base, (Dictionary{{"context", "local_file"}}));
    provider->delayedResponseCallback()(result, nullptr);
  }
  first->waitUntilSeen();
  second.waitUntilSeen();
  ASSERT_EQ(first->messages().size(), 1U);
  ASSERT_EQ(second.messages().size(), 1U);
  EXPECT_TRUE(recorder_.hasContaining(LogLevel::standard, "Forwarding delayed reputation response "));

  first.reset();
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (providers().size() == 2 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  EXPECT_EQ(providers().size(), 1U) << "one of the two has gone with its peer";
}

}  // namespace
}  // namespace qm::test
