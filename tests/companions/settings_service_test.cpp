// The settings daemon's service over real connections: who may do what, subscriptions, pushed actions.
#include "companions/settings_service.hpp"

#include "companions/settings_administration.hpp"
#include "companions/settings_error.hpp"
#include "settings/remote_action_protocols.hpp"
#include "support/testing.hpp"

namespace {

constexpr std::uint32_t kOwner = 4711;
constexpr std::int64_t kSilent = -1;
// Enough on a loaded machine for those that answer; one test waits for it in vain.
constexpr std::chrono::seconds kAnswerTime{5};
const std::string kEvents(RemoteProtocol<RemoteActionEventsProtocol>::name);
const std::string kExecuted(RemoteProtocol<RemoteActionExecutedEventsProtocol>::name);

// A process that hears of remote actions, and finishes each with the result it was given.
class Subscriber : public RemoteActionEventsProtocol, public RemoteActionExecutedEventsProtocol {
 public:
  static std::shared_ptr<Subscriber> create(std::int64_t result) {
    auto self = std::make_shared<Subscriber>();
    self->result_ = result;
    self->listener->setDelegate([weak = std::weak_ptr(self)](const auto&, const auto& connection) {
      const auto subscriber = weak.lock();
      if (subscriber == nullptr) return false;
      RemoteExport exported = remoteExport<RemoteActionEventsProtocol>(weak);
      if (subscriber->hearsOfExecuted) exported = remoteExport<RemoteActionExecutedEventsProtocol>(weak);
      connection->setExport(exported);
      connection->resume();
      subscriber->connections.push_back(connection);
      return true;
    });
    self->listener->resume();
    return self;
  }

  ~Subscriber() override {
    for (const auto& connection : connections) connection->invalidate();
  }

  void remoteActionWasPushedWithName(const std::string& name, const XPCEndpoint&,
                                     const Dictionary& actionData,
                                     Block<void(std::int64_t)> finishCallback) override {
    lastData = Value(actionData).description() + name;
    ++pushed;
    if (result_ != kSilent) return finishCallback(result_);
    kept_.push_back(std::move(finishCallback));
  }
  void remoteActionWasExecutedWithName(const std::string&, std::int64_t completionResult) override {
    executed += completionResult;
  }

  const std::shared_ptr<RemoteListener> listener = RemoteListener::anonymousListener();
  std::vector<std::shared_ptr<RemoteConnection>> connections;
  std::atomic<bool> hearsOfExecuted = false;
  std::atomic<int> pushed = 0;
  std::atomic<std::int64_t> executed = 0;
  std::string lastData;

 private:
  std::int64_t result_ = 0;
  std::vector<Block<void(std::int64_t)>> kept_;
};

class ServedSettings : public RecordedTest {
 protected:
  ServedSettings() {
    SettingsService::Options options;
    options.peers.admission = [this](const RemoteConnection&) {
      decides_.wait(false);
      return admits_.load();
    };
    options.userOf = [this](const RemoteConnection&) { return user_.load(); };
    options.owner = kOwner;
    options.peers.connectionsOfOneProcess = 16;
    options.peers.undecidedPeersOfOneUser = 2;
    options.subscribers.answerTime = kAnswerTime;
    options.subscribers.subscriptionsOfOneProcess = 4;
    options.subscribers.unansweredActions = 1;
    service_ = SettingsService::create(store_, options);
    service_->serve(listener_);
  }
  ~ServedSettings() override { listener_->invalidate(); }

  // As a process of the user.
  std::shared_ptr<RemoteConnection> connect(std::uint32_t user = kOwner) {
    user_ = user;
    const auto connection = RemoteConnection::createWithListenerEndpoint(listener_->endpoint());
    connection->setRemoteObjectInterface(remoteInterface<SettingsDaemonProtocol>());
    connection->resume();
    // Its user has been asked for when it is answered.
    connection->synchronousRemoteObjectProxyWithErrorHandler(nullptr)
        .call<&qmsettingsdProtocol::getUserWhitelistWithReply>(Block<void(const Array&, bool)>());
    return connection;
  }
  // What the call's reply or the connection says; 0 for no error.
  template <auto Method, class... Arguments>
  static std::int64_t codeOf(const std::shared_ptr<RemoteConnection>& connection,
                             const Arguments&... arguments) {
    std::int64_t code = 0;
    const Block<void(const ErrorPtr&)> done = [&](const ErrorPtr& error) {
      if (error) code = error->code();
    };
    connection->synchronousRemoteObjectProxyWithErrorHandler(done).template call<Method>(arguments..., done);
    return code;
  }
  static bool subscribe(const std::shared_ptr<RemoteConnection>& connection, const Subscriber& subscriber,
                        const std::string& protocol) {
    bool success = false;
    connection->synchronousRemoteObjectProxyWithErrorHandler(nullptr)
        .call<&QMRSubscriptionProtocol::subscribeToChangesWithProtocol>(
            protocol, subscriber.listener->endpoint(), [&](bool reply) { success = reply; });
    return success;
  }
  static bool isServed(const std::shared_ptr<RemoteConnection>& connection) {
    bool isAnswered = false;
    connection->synchronousRemoteObjectProxyWithErrorHandler(nullptr)
        .call<&qmsettingsdProtocol::getUserWhitelistWithReply>(
            [&](const Array&, bool) { isAnswered = true; });
    return isAnswered;
  }
  static Dictionary systemSettings(const std::shared_ptr<RemoteConnection>& connection) {
    Dictionary settings;
    connection->synchronousRemoteObjectProxyWithErrorHandler(nullptr)
        .call<&qmsettingsdProtocol::getSystemSettingsWithReply>(
            [&](const Dictionary& reply, const ErrorPtr&) { settings = reply; });
    return settings;
  }
  static Array push(const std::shared_ptr<RemoteConnection>& connection, ErrorPtr* failure = nullptr) {
    Array results;
    connection->synchronousRemoteObjectProxyWithErrorHandler(nullptr)
        .call<&SettingsAdministration::pushRemoteAction>("scan", Dictionary{{"k", 1}},
                                                         [&](const Array& all, const ErrorPtr& error) {
                                                           results = all;
                                                           if (failure) *failure = error;
                                                         });
    return results;
  }
  // Of each subscriber its result code, or "error".
  static std::multiset<std::string> outcomes(const Array& results) {
    std::multiset<std::string> texts;
    for (const Value& result : results) {
      const auto* code = find<std::int64_t>(*result.as<Dictionary>(), "result");
      texts.insert(code == nullptr ? "error" : std::to_string(*code));
    }
    return texts;
  }

  const std::string file_ = folder.path("settings.toml");
  const std::shared_ptr<SettingsStore> store_ =
      std::make_shared<SettingsStore>(file_, folder.path("state.toml"), nullptr);
  const std::shared_ptr<RemoteListener> listener_ = RemoteListener::anonymousListener();
  std::shared_ptr<SettingsService> service_;
  std::atomic<bool> admits_ = true;
  std::atomic<bool> decides_ = true;
  std::atomic<std::uint32_t> user_ = kOwner;
};

TEST_F(ServedSettings, KeepsWhatItsPeersReport) {
  const auto peer = connect(1);
  const RemoteProxy proxy = peer->remoteObjectProxyWithErrorHandler(nullptr);
  proxy.call<&qmsettingsdProtocol::updateWispError>(
      makeError("d", 7, {{kLocalizedDescriptionKey, "no answer"}}));
  proxy.call<&qmsettingsdProtocol::setTCCAccessGranted>(true);
  EXPECT_EQ(systemSettings(peer),
            (Dictionary{
                {"tcc-access-granted", true}, {"wisp-error-state", 7}, {"wisp-error-reason", "no answer"}}));
  proxy.call<&qmsettingsdProtocol::updateWispError>(nullptr);
  proxy.call<&qmsettingsdProtocol::setWispErrorState>(std::int64_t{3});
  EXPECT_EQ(systemSettings(peer), (Dictionary{{"tcc-access-granted", true}, {"wisp-error-state", 3}}));
  proxy.call<&qmsettingsdProtocol::updateWispConfigurationState>(std::int64_t{2});
  EXPECT_TRUE(eventually([&] { return systemSettings(peer).contains("wisp-config-state"); }));
  EXPECT_TRUE(std::filesystem::exists(file_));
  admits_ = false;
  const auto stranger = RemoteConnection::createWithListenerEndpoint(listener_->endpoint());
  stranger->setRemoteObjectInterface(remoteInterface<SettingsDaemonProtocol>());
  stranger->resume();
  EXPECT_TRUE(systemSettings(stranger).empty());
}

TEST_F(ServedSettings, OnlyRootAndTheOwnerAdminister) {
  using Code = SettingsError;
  const struct {
    std::uint32_t user;
    std::string table;
    Dictionary settings;
    Code code;
  } cases[] = {
      {0, "system", {{"a", 1}}, {}},
      {kOwner, "user", {{"a", Array{1}}, {"b", true}}, {}},
      {kOwner, "nobody", {{"a", 1}}, Code::badValue},
      {kOwner, "user", {{"", 1}}, Code::badValue},
      {kOwner + 1, "user", {{"c", 1}}, Code::notAllowed},
  };
  for (const auto& [user, table, settings, code] : cases)
    EXPECT_EQ(codeOf<&SettingsAdministration::setSettings>(connect(user), settings, table),
              static_cast<std::int64_t>(code))
        << user << table;
  const auto stranger = connect(kOwner + 1);
  const auto notAllowed = static_cast<std::int64_t>(Code::notAllowed);
  EXPECT_EQ(codeOf<&SettingsAdministration::removeSettings>(stranger, Array{"a"}, "user"), notAllowed);
  EXPECT_EQ(codeOf<&SettingsAdministration::setAllowList>(stranger, Array{"x"}), notAllowed);
  ErrorPtr refusal;
  push(stranger, &refusal);
  ASSERT_NE(refusal, nullptr);
  EXPECT_EQ(refusal->code(), notAllowed);
  EXPECT_EQ(codeOf<&SettingsAdministration::removeSettings>(connect(0), Array{"a"}, "user"), 0);
  const auto settings = store_->current();
  EXPECT_EQ(settings->user, (Dictionary{{"b", true}}));
  EXPECT_EQ(settings->system, (Dictionary{{"a", 1}}));
  EXPECT_TRUE(settings->allowList.empty());
}

TEST_F(ServedSettings, OneSubscriptionForAnEndpointAndProtocolUntilItsConnectionEnds) {
  const auto peer = connect();
  const auto again = connect();
  auto subscriber = Subscriber::create(3);
  EXPECT_TRUE(subscribe(peer, *subscriber, kEvents));
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(subscribe(again, *subscriber, kEvents)) << "it replaces";
  EXPECT_FALSE(subscribe(peer, *subscriber, "NobodysProtocol"));
  EXPECT_EQ(outcomes(push(peer)), (std::multiset<std::string>{"3"}));
  EXPECT_EQ(subscriber->pushed, 1);
  EXPECT_EQ(subscriber->lastData, Value(Dictionary{{"k", 1}}).description() + "scan");

  const auto other = Subscriber::create(3);
  EXPECT_TRUE(subscribe(peer, *other, kEvents));
  EXPECT_EQ(push(peer).size(), 2u);
  peer->remoteObjectProxyWithErrorHandler(nullptr).call<&QMRSubscriptionProtocol::unsubscribeEndpoint>(
      other->listener->endpoint(), kEvents);
  EXPECT_EQ(push(peer).size(), 1u);

  subscriber.reset();  // with its listener and connections
  EXPECT_TRUE(eventually([&] { return service_->subscribers().count(kEvents) == 0; }));
  std::vector<std::shared_ptr<Subscriber>> many;
  for (int i = 0; i < 5; ++i) {
    many.push_back(Subscriber::create(3));
    EXPECT_EQ(subscribe(i % 2 == 0 ? peer : again, *many.back(), kEvents), i < 4) << "of a process";
  }
}

TEST_F(ServedSettings, OneProcessGetsOnlySoManyConnections) {
  std::vector<std::shared_ptr<RemoteConnection>> crowd;
  for (int i = 0; i < 17; ++i) crowd.push_back(connect());
  EXPECT_TRUE(isServed(crowd[15]));
  EXPECT_FALSE(isServed(crowd[16]));
  crowd.clear();
  EXPECT_TRUE(eventually([&] { return isServed(connect()); }));
}

TEST_F(ServedSettings, OneUserGetsOnlySoManyPlacesWhileItsProgramsAreChecked) {
  decides_ = false;
  std::vector<std::future<std::shared_ptr<RemoteConnection>>> crowd;
  for (int i = 0; i < 3; ++i) crowd.push_back(std::async(std::launch::async, [this] { return connect(); }));
  EXPECT_TRUE(eventually([&] { return recorder.hasError("too many are being checked"); }));
  decides_ = true;
  decides_.notify_all();
  for (auto& connection : crowd) connection.wait();
  EXPECT_TRUE(isServed(connect()));
}

TEST_F(ServedSettings, APushReportsEachAnswerAndWaitsForNobodyForLong) {
  const auto peer = connect();
  EXPECT_TRUE(push(peer).empty());
  const auto handler = Subscriber::create(5);
  const auto bystander = Subscriber::create(3);
  const auto silent = Subscriber::create(kSilent);
  const auto executed = Subscriber::create(0);
  executed->hearsOfExecuted = true;
  for (const auto& subscriber : {handler, bystander, silent})
    EXPECT_TRUE(subscribe(peer, *subscriber, kEvents));
  EXPECT_TRUE(subscribe(peer, *executed, kExecuted));
  EXPECT_EQ(outcomes(push(peer)), (std::multiset<std::string>{"3", "5", "error"}));
  EXPECT_EQ(outcomes(push(peer)), (std::multiset<std::string>{"3", "5", "error"}));
  EXPECT_EQ(silent->pushed, 1) << "it gets nothing more until it answers";
  EXPECT_TRUE(eventually([&] { return executed->executed == 10; })) << "what was handled, twice";
}

}  // namespace
