#include "settings/QMRServiceClient.hpp"

#include "foundation/internal_inconsistency.hpp"
#include "scripted_service.hpp"
#include "settings/QMRSubscriptionProtocol.hpp"
#include "support/testing.hpp"

class Notices {
 public:
  virtual ~Notices() = default;
  virtual void noticed(const std::string& text) = 0;
};
template <>
struct qm::RemoteProtocol<Notices> {
  static constexpr std::string_view name = "Notices";
  using Methods = RemoteMethods<RemoteMethod<"noticed:", &Notices::noticed>>;
};

namespace {

using std::chrono::seconds;

struct Request {
  std::string protocolName;
  XPCEndpoint endpoint;
  Block<void(bool)> reply;  // null: the subscription ends
};

class Subscriptions final : public QMRSubscriptionProtocol {
 public:
  void subscribeToChangesWithProtocol(const std::string& protocolName, const XPCEndpoint& endpoint,
                                      Block<void(bool)> reply) override {
    if (saysYes) return reply(true);
    requests.put({protocolName, endpoint, std::move(reply)});
  }
  void unsubscribeEndpoint(const XPCEndpoint& endpoint, const std::string& protocolName) override {
    if (!saysYes) requests.put({protocolName, endpoint, nullptr});
  }
  Inbox<Request> requests;
  std::atomic<bool> saysYes = false;  // at once, without asking the test
};

struct Scheduled {
  seconds delay;
  Block<void()> work;
};

// Time and the end of the process are the test's.
class TestedClient final : public QMRServiceClient, public Notices {
 public:
  using QMRServiceClient::QMRServiceClient;
  void noticed(const std::string& text) override { notices.put(text); }

  Inbox<std::string> notices;
  Inbox<Scheduled> scheduled;
  Inbox<int> exits;

 protected:
  RemoteExport exportForProtocol(const std::string& protocolName) override {
    if (protocolName == "Unknown") return {};
    return remoteExport<Notices>(std::static_pointer_cast<TestedClient>(shared_from_this()));
  }
  void reconnectAfter(seconds delay, Block<void()> work) override { scheduled.put({delay, std::move(work)}); }
  void terminateProcessWithCode(int code) override { exits.put(code); }
};

class ServiceClientTest : public RecordedTest {
 protected:
  std::shared_ptr<TestedClient> makeClient() const {
    return std::make_shared<TestedClient>(service.endpoint(), remoteInterface<QMRSubscriptionProtocol>());
  }
  Request nextRequest() const { return *subscriptions->requests.take(); }
  // Replies come in order: once this one has, those that were given before have been dealt with.
  void waitForReplies(const std::string& protocolName) const {
    const auto answered = std::make_shared<Inbox<bool>>();
    client->subscribeWithProtocol(protocolName, [answered](bool success) { answered->put(success); });
    nextRequest().reply(true);
    EXPECT_EQ(answered->take(), true);
  }
  void subscribe(const std::string& protocolName) const {
    EXPECT_TRUE(client->subscribeToUpdateWithProtocol(protocolName));
    nextRequest().reply(true);
    waitForReplies(protocolName);
  }
  void callBack(const XPCEndpoint& endpoint) const {
    const auto back = connectTo<Notices>(endpoint);
    back->remoteObjectProxyWithErrorHandler(nullptr).call<&Notices::noticed>("news");
    EXPECT_EQ(client->notices.take(), "news");
  }

  const std::shared_ptr<Subscriptions> subscriptions = std::make_shared<Subscriptions>();
  ScriptedService<QMRSubscriptionProtocol> service{subscriptions};
  std::shared_ptr<TestedClient> client = makeClient();
};

TEST_F(ServiceClientTest, TheServiceCallsBackWhatWasSubscribedToOnce) {
  EXPECT_FALSE(client->isConnected());
  const auto setups = std::make_shared<Inbox<bool>>();
  for (int i = 0; i < 2; ++i)
    EXPECT_TRUE(
        client->subscribeToUpdateWithProtocol("Notices", [setups](const auto&) { setups->put(true); }));
  EXPECT_TRUE(client->isConnected());
  const Request request = nextRequest();
  EXPECT_EQ(request.protocolName, "Notices");
  request.reply(true);
  waitForReplies("Notices");
  EXPECT_EQ(subscriptions->requests.size(), 0U) << "a second request was sent";
  EXPECT_TRUE(recorder.has(LogLevel::debug, "Initial subscription to protocol Notices succeeded."));
  EXPECT_TRUE(
      recorder.has(LogLevel::debug, "Flagging annonymous listtener for protocol Notices as alive: 1"));

  callBack(request.endpoint);
  EXPECT_EQ(setups->size(), 1U);

  client->subscribeToUpdateWithProtocol("Unknown");
  const auto refused = RemoteConnection::createWithListenerEndpoint(nextRequest().endpoint);
  const auto refusals = std::make_shared<Inbox<bool>>();
  refused->setInvalidationHandler([refusals] { refusals->put(true); });
  refused->resume();
  EXPECT_EQ(refusals->take(), true);
  EXPECT_TRUE(recorder.has(LogLevel::error, "Error: could not resolve protocol Unknown"));

  EXPECT_TRUE(client->unsubscribeProtocol("Notices"));
  EXPECT_FALSE(client->unsubscribeProtocol("Notices"));
  const Request ended = nextRequest();
  EXPECT_TRUE(ended.protocolName == "Notices" && ended.endpoint == request.endpoint && !ended.reply);
}

TEST_F(ServiceClientTest, RetriesComeQuicklyAtFirstAndAgainAfterASuccess) {
  client->connectionInterrupted();
  EXPECT_EQ(client->scheduled.size(), 0U) << "there is nothing to renew";
  subscribe("Notices");
  Request last;
  for (int retry = 1; retry <= 33; ++retry) {
    // However often others connect in vain meanwhile, it is one retry.
    for (int user = 0; user < 3; ++user) {
      EXPECT_NE(client->connection(), nullptr);
      (retry + user) % 2 == 0 ? client->connectionInterrupted() : client->connectionInvalidated();
      EXPECT_FALSE(client->isConnected());
    }
    const Scheduled next = *client->scheduled.take();
    EXPECT_EQ(client->scheduled.size(), 0U) << retry;
    EXPECT_EQ(next.delay, seconds(retry <= 29 ? 2 : 120)) << retry;
    next.work();
    last = nextRequest();
  }
  last.reply(true);
  waitForReplies("Notices");
  client->scheduled.take()->work();  // finds all alive
  client->connectionInterrupted();
  EXPECT_EQ(client->scheduled.take()->delay, seconds(2));
  EXPECT_EQ(subscriptions->requests.size(), 0U);
}

TEST_F(ServiceClientTest, ASuccessLeadsToTheNextProtocolAndAFailureWaitsForTheNextBreak) {
  subscribe("First");
  subscribe("Second");
  for (const bool succeeds : {false, true}) {
    service.breakConnection();
    const Scheduled retry = *client->scheduled.take();
    EXPECT_EQ(retry.delay, seconds(2));
    retry.work();
    const Request first = nextRequest();
    EXPECT_EQ(first.protocolName, "First");
    first.reply(succeeds);
    if (!succeeds) {
      waitForReplies("Second");
      EXPECT_EQ(client->scheduled.size(), 0U);
      continue;
    }
    const Scheduled next = *client->scheduled.take();
    EXPECT_EQ(next.delay, seconds(0));
    next.work();
    EXPECT_EQ(nextRequest().protocolName, "Second");
  }
}

TEST_F(ServiceClientTest, ABreakRunsTheHookFirstAndEndsTheProcessWhenToldTo) {
  const std::string name = "com.example.service-client-test." + std::to_string(::getpid());
  ScriptedService<QMRSubscriptionProtocol> named(subscriptions, name);
  for (const bool isNamed : {false, true}) {
    for (const bool terminates : {false, true}) {
      client = isNamed ? std::make_shared<TestedClient>(name, remoteInterface<QMRSubscriptionProtocol>())
                       : makeClient();
      const auto story = std::make_shared<Inbox<std::string>>();
      client->setReconnectionHandler([story] { story->put("connected"); });
      client->setInterruptionHandler([story] { story->put("interrupted"); });
      client->setInvalidationHandler([story] { story->put("invalidated"); });
      client->setShouldTerminateProcessOnXPCInterruption(terminates);
      client->setShouldTerminateProcessOnXPCInvalidation(terminates);
      subscribe("Notices");
      EXPECT_EQ(story->take(), "connected");
      (isNamed ? named : service).breakConnection();
      EXPECT_EQ(story->take(), isNamed ? "interrupted" : "invalidated");
      if (terminates) {
        EXPECT_EQ(client->exits.take(), isNamed ? 101 : 102);
        EXPECT_EQ(client->scheduled.size(), 0U);
      } else {
        client->scheduled.take();
        EXPECT_EQ(client->exits.size(), 0U);
        EXPECT_FALSE(client->isConnected());
      }
      client->shutdown();
    }
  }
}

TEST_F(ServiceClientTest, AReplacedConnectionDoesNotTouchItsSuccessor) {
  subscribe("Notices");
  const auto hooks = std::make_shared<Inbox<bool>>();
  client->setInvalidationHandler([hooks] { hooks->put(true); });
  const std::shared_ptr<RemoteConnection> replaced = client->connection();
  client->trySubscribe();
  client->scheduled.take()->work();
  const std::shared_ptr<RemoteConnection> successor = client->connection();
  // Both handlers go once the last of them has run.
  const auto gone = std::make_shared<Inbox<bool>>();
  replaced->setInterruptionHandler(
      [guard = std::shared_ptr<void>(nullptr, [gone](void*) { gone->put(true); })] {});
  replaced->invalidate();
  EXPECT_EQ(gone->take(), true);
  EXPECT_NE(replaced, successor);
  EXPECT_EQ(client->xpcConnection(), successor);
  EXPECT_EQ(hooks->size() + client->scheduled.size(), 0U);
}

TEST_F(ServiceClientTest, TheServiceMayCallBackWhileAConnectionIsMade) {
  client->subscribeToUpdateWithProtocol("Once", [watched = std::weak_ptr(client)](const auto&) {
    EXPECT_TRUE(watched.lock()->unsubscribeProtocol("Once"));
  });
  const Request once = nextRequest();
  callBack(once.endpoint);
  EXPECT_FALSE(nextRequest().reply) << "the setup of a call-back ended its own subscription";

  client->subscribeToUpdateWithProtocol("More");
  const Request more = nextRequest();
  client->trySubscribe();
  client->setReconnectionHandler([&] { callBack(more.endpoint); });
  EXPECT_NE(client->connection(), nullptr);
}

TEST_F(ServiceClientTest, ItsEndUnsubscribesAlsoOnItsOwnConnectionsQueue) {
  client->subscribeToUpdateWithProtocol("Notices");
  const Request first = nextRequest();
  client->subscribeWithProtocol("Notices", [last = client](bool) mutable { last.reset(); });
  const Request second = nextRequest();
  const std::weak_ptr<TestedClient> watched = client;
  client.reset();
  first.reply(true);
  second.reply(true);
  const Request ended = nextRequest();
  EXPECT_TRUE(ended.protocolName == "Notices" && !ended.reply);
  EXPECT_TRUE(watched.expired());

  client = makeClient();
  client->shutdown();
  EXPECT_EQ(client->connection(), nullptr);
  client->proxy().call<&QMRSubscriptionProtocol::unsubscribeEndpoint>(XPCEndpoint(), "nobody");
  EXPECT_TRUE(client->subscribeToUpdateWithProtocol("Notices"));
  EXPECT_EQ(subscriptions->requests.size(), 0U);
  const auto nowhere =
      std::make_shared<TestedClient>(XPCEndpoint(), remoteInterface<QMRSubscriptionProtocol>());
  EXPECT_THROW(nowhere->connection(), InternalInconsistencyException);
}

TEST_F(ServiceClientTest, ThreadsMayUseItWhileItsConnectionsBreak) {
  subscriptions->saysYes = true;
  std::vector<std::thread> users;
  for (int user = 0; user < 4; ++user)
    users.emplace_back([this, user] {
      const std::string protocolName = "Notices" + std::to_string(user % 2);
      for (int i = 0; i < 50; ++i) {
        client->subscribeToUpdateWithProtocol(protocolName);
        client->doContinueSubscribe();
        if (user == 3) client->connectionInvalidated();
        client->unsubscribeProtocol(protocolName);
      }
    });
  for (std::thread& user : users) user.join();
  client->subscribeToUpdateWithProtocol("Notices");
  const auto answered = std::make_shared<Inbox<bool>>();
  client->subscribeWithProtocol("Notices", [answered](bool success) { answered->put(success); });
  EXPECT_EQ(answered->take(), true);
}

}  // namespace
