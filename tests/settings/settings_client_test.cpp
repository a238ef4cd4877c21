// The settings client against a scripted settings daemon, with real notifications. All cases share the run
// folder and the customization of an installation in the build folder.
#include "settings/QMRSettingsClient.hpp"

#include "platform/system_root.hpp"
#include "scripted_service.hpp"
#include "settings/qmsettingsdProtocol.hpp"
#include "settings/settings_keys.hpp"
#include "support/testing.hpp"

namespace {

Dictionary version(std::int64_t number) {
  return {{"version", number}};
}
std::int64_t versionOf(const Dictionary& settings) {
  const Value* number = find(settings, "version");
  return number == nullptr ? 0 : number->integerValue();
}

struct Subscription {
  std::string protocolName;
  XPCEndpoint endpoint;
};

// All that it has is one number: the version of everything, which is how often it was changed.
class Settings final : public qmsettingsdProtocol {
 public:
  enum class Answers { once, twice, withAForeignClass, never };

  void getUserAndSystemSettingsWithReply(QMRSettingsClient::UserAndSystemSettingsReply reply) override {
    fetches.put("settings");
    if (answers == Answers::never) return;
    Dictionary settings = version(current);
    if (answers == Answers::withAForeignClass) settings["id"] = UUID();
    for (int i = answers == Answers::twice ? 0 : 1; i < 2; ++i) reply(settings, settings, error.get());
  }
  void getUserSettingsWithReply(QMRSettingsClient::SettingsReply reply) override {
    reply(version(current), error.get());
  }
  void getSystemSettingsWithReply(QMRSettingsClient::SettingsReply reply) override {
    reply(version(current), error.get());
  }
  void getUserWhitelistWithReply(Block<void(const Array&, bool)> reply) override {
    fetches.put("whitelist");
    reply({current.load()}, hasWhitelist);
  }
  void updateWispConfigurationState(std::int64_t state) override {
    reports.put("config " + std::to_string(state));
  }
  void updateWispError(const ErrorPtr& its) override {
    reports.put("error " + (its ? std::to_string(its->code()) : "none"));
  }
  void setWispErrorState(std::int64_t state) override { reports.put("state " + std::to_string(state)); }
  void setTCCAccessGranted(bool granted) override { reports.put(granted ? "granted" : "denied"); }
  void subscribeToChangesWithProtocol(const std::string& protocolName, const XPCEndpoint& endpoint,
                                      Block<void(bool)> reply) override {
    subscriptions.put({protocolName, endpoint});
    reply(true);
  }
  void unsubscribeEndpoint(const XPCEndpoint&, const std::string&) override {}

  std::atomic<Answers> answers = Answers::once;
  std::atomic<std::int64_t> current = 1;
  Property<ErrorPtr> error;
  std::atomic<bool> hasWhitelist = true;
  Inbox<std::string> fetches;
  Inbox<std::string> reports;
  Inbox<Subscription> subscriptions;
};

class SettingsClientTest : public RecordedTest {
 protected:
  // Runs the client's start and returns what it says.
  bool start() const {
    const auto started = std::make_shared<Inbox<bool>>();
    client->startListenersWithReply([started](bool success) { started->put(success); });
    return started->take().value_or(false);
  }
  // Waits for what the daemon was told before: notifications, fetches and their replies come in order.
  void settle() const {
    const auto refreshed = std::make_shared<Inbox<bool>>();
    client->addWhitelistUpdateCallback([refreshed](const Array&) { refreshed->put(true); });
    notifyPost(kWhitelistUpdatedNotification);
    refreshed->take();
  }
  template <class Reply>
  static std::int64_t answer(const Reply& get) {
    const auto answered = std::make_shared<Inbox<std::int64_t>>();
    get([answered](const Dictionary& its, const ErrorPtr&) { answered->put(versionOf(its)); });
    return answered->take().value_or(-1);
  }

  const std::shared_ptr<Settings> settings = std::make_shared<Settings>();
  const ScriptedService<qmsettingsdProtocol> service{
      settings, {}, [](RemoteInterface& interface) {
        for (const std::size_t argument : {0U, 1U})
          interface.setClasses({{"NSDictionary"}, {"NSString"}, {"NSNumber"}, {"NSUUID"}},
                               "getUserAndSystemSettingsWithReply:", argument, true);
      }};
  const std::shared_ptr<QMRSettingsClient> client =
      QMRSettingsClient::create(connectTo<qmsettingsdProtocol>(service.endpoint()));
};

TEST_F(SettingsClientTest, OnlyAFetchThatSucceedsReplacesTheCopiesAndTheFirstCallsNobody) {
  std::atomic<int> calls = 0;
  client->addSettingsUpdateCallback([&calls](const auto&, const auto&) { ++calls; });
  client->addWhitelistUpdateCallback([&calls](const auto&) { ++calls; });
  const ErrorPtr failure = makeError("domain", 7);
  const struct {
    ErrorPtr error;
    bool hasWhitelist;
    std::int64_t settings;  // the version that is kept
    std::int64_t whitelist;
  } cases[] = {{failure, false, 0, 0}, {failure, true, 0, 2}, {nullptr, false, 3, 2}, {nullptr, true, 4, 4}};
  for (const auto& c : cases) {
    settings->error.set(c.error);
    settings->hasWhitelist = c.hasWhitelist;
    EXPECT_EQ(start(), !c.error && c.hasWhitelist);
    EXPECT_EQ(versionOf(*client->userSettings()), c.settings);
    EXPECT_EQ(versionOf(*client->systemSettings()), c.settings);
    EXPECT_EQ(client->whitelist(), c.whitelist == 0 ? Array() : Array{c.whitelist});
    ++settings->current;
  }
  EXPECT_TRUE(
      recorder.has(LogLevel::error, "Error receiving user and system settings: " + failure->description()));

  while (settings->fetches.size() > 0) settings->fetches.take();
  settings->error.set(failure);
  settings->hasWhitelist = false;
  notifyPost(kSettingsUpdatedNotification);
  notifyPost(kWhitelistUpdatedNotification);
  EXPECT_EQ(settings->fetches.take(), "settings");
  EXPECT_EQ(settings->fetches.take(), "whitelist");
  EXPECT_EQ(answer([this](auto reply) { client->getUserSettingsWithReply(reply); }), 5);
  EXPECT_EQ(answer([this](auto reply) { client->getSystemSettingsWithReply(reply); }), 5);
  EXPECT_TRUE(recorder.has(LogLevel::error, "Error fetching settings: " + failure->description()));
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(versionOf(*client->systemSettings()), 4);
  EXPECT_EQ(client->whitelist(), Array{4});
}

TEST_F(SettingsClientTest, CallbacksAreKnownByIdentityAndMayChangeTheirListWhileTheyRun) {
  std::vector<std::string> calls;  // guarded by the callbacks' lock
  const auto make = [&calls](const char* name) {
    return QMRSettingsClientProtocol::SettingsUpdateCallback(
        [&calls, name](const auto&, const auto&) { calls.emplace_back(name); });
  };
  const auto second = make("second");
  const auto third = make("third");
  client->addSettingsUpdateCallback(nullptr);
  client->addSettingsUpdateCallback([&](const auto&, const auto&) {
    calls.emplace_back("first");
    client->removeSettingsUpdateCallback(second);
    client->addSettingsUpdateCallback(make("added"));
  });
  client->addSettingsUpdateCallback(second);
  client->addSettingsUpdateCallback(third);
  client->removeSettingsUpdateCallback(make("third"));  // equal, but another block
  client->removeSettingsUpdateCallback(nullptr);
  notifyPost(kSettingsUpdatedNotification);
  settle();
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "third"}));
  EXPECT_EQ(settings->fetches.size(), 2U) << "registered more than once";
  client->removeSettingsUpdateCallback(third);
  client->handleNotificationForUserSettings(version(8), version(9));
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "third", "first", "added"}));
  EXPECT_EQ(versionOf(*client->userSettings()) * 10 + versionOf(*client->systemSettings()), 89);
}

TEST_F(SettingsClientTest, ABurstOfNotificationsEndsWithTheLastValues) {
  constexpr std::int64_t kLast = 1000;
  const auto seen = std::make_shared<Inbox<std::int64_t>>();
  client->addSettingsUpdateCallback(
      [seen, owner = std::weak_ptr(client)](const auto& user, const auto& system) {
        EXPECT_EQ(user, system);
        EXPECT_EQ(*owner.lock()->systemSettings(), system);
        seen->put(versionOf(system));
      });
  for (std::int64_t i = 1; i <= kLast; ++i) {
    settings->current = i;
    notifyPost(kSettingsUpdatedNotification);
  }
  std::int64_t last = 0;
  while (last < kLast) {
    const std::int64_t next = seen->take().value_or(kLast + 1);
    EXPECT_LE(last, next);
    last = next;
  }
  EXPECT_EQ(versionOf(*client->userSettings()), kLast);
}

TEST_F(SettingsClientTest, AnswersThatAreNoneAreLogged) {
  const std::string xpcError = "-[QMRSettingsClient settingsdProxy]_block_invoke: XPC error: ";
  std::atomic<int> replies = 0;
  const auto count = [&replies](const auto&, const auto&, const auto&) { ++replies; };
  settings->answers = Settings::Answers::twice;
  client->getUserAndSystemSettingsWithReply(count);
  settle();
  EXPECT_EQ(replies, 1);
  EXPECT_TRUE(start());
  settings->current = 2;
  const std::pair<Settings::Answers, const char*> cases[] = {{Settings::Answers::withAForeignClass, "4101"},
                                                             {Settings::Answers::never, "4097"}};
  for (const auto& [answers, code] : cases) {
    settings->answers = answers;
    client->getUserAndSystemSettingsWithReply(count);
    client->startListeners();
    EXPECT_EQ(answer([this](auto reply) { client->getUserSettingsWithReply(reply); }), 2);
    EXPECT_TRUE(
        recorder.hasContaining(LogLevel::error, xpcError + "Error Domain=NSCocoaErrorDomain Code=" + code));
  }
  EXPECT_EQ(replies, 1);
  EXPECT_EQ(versionOf(*client->userSettings()), 1);
}

TEST_F(SettingsClientTest, ReportsGoOneWayAndErrorsOfTheConnectionAreLogged) {
  client->updateWispConfigurationState(-2);
  client->updateWispError(makeError("domain", 7));
  client->updateWispError(nullptr);
  client->setWispErrorState(INT64_MAX);
  client->setTCCAccessGranted(true);
  for (const char* report : {"config -2", "error 7", "error none", "state 9223372036854775807", "granted"})
    EXPECT_EQ(settings->reports.take(), report);
  client->shutdown();
  client->updateWispError(nullptr);
  client->updateWispConfigurationState(1);
  client->setWispErrorState(1);
  answer([this](auto reply) {
    client->settingsdProxy([reply](const ErrorPtr& error) { reply({}, error); })
        .template call<&qmsettingsdProtocol::setWispErrorState>(1);
  });
  for (const char* method : {"updateWispError:", "updateWispConfigurationState:", "setWispErrorState:"})
    EXPECT_TRUE(recorder.hasContaining(LogLevel::error,
                                       std::string(method) + "]_block_invoke: XPC error: Error Domain="));
}

TEST_F(SettingsClientTest, RemoteActionsReachTheirHandlersInOrder) {
  const Subscription pushes = *settings->subscriptions.take();
  const Subscription completions = *settings->subscriptions.take();
  EXPECT_EQ(pushes.protocolName + " " + completions.protocolName,
            "RemoteActionEventsProtocol RemoteActionExecutedEventsProtocol");
  const auto pusher = connectTo<RemoteActionEventsProtocol>(pushes.endpoint);
  const auto push = [&pusher](const char* name) {
    const auto results = std::make_shared<Inbox<std::int64_t>>();
    pusher->remoteObjectProxyWithErrorHandler(nullptr)
        .call<&RemoteActionEventsProtocol::remoteActionWasPushedWithName>(
            name, XPCEndpoint(), Dictionary{{"data", 5}},
            [results](std::int64_t result) { results->put(result); });
    return results->take();
  };
  EXPECT_EQ(push("scan"), 3) << "nobody handles it";
  const auto story = std::make_shared<Inbox<std::string>>();
  const QMRSettingsClient::RemoteActionHandler first = [story](const auto&, const auto&, const auto&) {
    story->put("first");
  };
  const QMRSettingsClient::RemoteActionHandler second = [story](const auto&, const Dictionary& data,
                                                                const auto& finish) {
    story->put("second");
    finish(find(data, "data")->integerValue());
  };
  for (const auto& handler : {first, second}) client->subscribeForRemoteActionWithName("scan", handler);
  EXPECT_EQ(push("scan"), 5);
  client->unsubscribeForRemoteActionWithName("scan", second);
  client->unsubscribeForRemoteActionWithName("scan", first);
  EXPECT_EQ(push("scan"), 3);

  const QMRSettingsClient::RemoteActionExecutedHandler done = [story](std::int64_t result) {
    story->put("done " + std::to_string(result));
  };
  client->subscribeForRemoteActionExecutedWithName("scan", done);
  const auto teller = connectTo<RemoteActionExecutedEventsProtocol>(completions.endpoint);
  for (const char* name : {"update", "scan"})
    teller->remoteObjectProxyWithErrorHandler(nullptr)
        .call<&RemoteActionExecutedEventsProtocol::remoteActionWasExecutedWithName>(name, 6);
  for (const char* event : {"first", "second", "done 6"}) EXPECT_EQ(story->take(), event);
}

TEST_F(SettingsClientTest, ItsLastReferenceMayGoWhileItWaitsAndOnItsConnectionsQueue) {
  const auto ends = std::make_shared<Inbox<bool>>();
  for (const auto answers : {Settings::Answers::once, Settings::Answers::never}) {
    for (const bool isHeldByItsReply : {true, false}) {
      settings->answers = answers;
      auto owned = QMRSettingsClient::create(connectTo<qmsettingsdProtocol>(service.endpoint()));
      const std::shared_ptr<void> end(nullptr, [ends](void*) { ends->put(true); });
      owned->addSettingsUpdateCallback([end](const auto&, const auto&) {});
      owned->startListenersWithReply([holder = isHeldByItsReply ? owned : nullptr](bool) {});
    }
  }
  ends->waitFor(4);
  EXPECT_TRUE(recorder.has(LogLevel::debug, "QMRSettingsClient dealloc"));
}

TEST_F(SettingsClientTest, ATaskIsDismissedWhenTheUserSettingsListIt) {
  const Value dismissed = Array{"other", "task"};
  const Value others = Array{"TASK", 1, Array{"task"}};
  for (const Value& tasks : {Value(), Value("task"), others, dismissed}) {
    client->handleNotificationForUserSettings({{kUserSettingsKeyDismissedTasks, tasks}}, {});
    EXPECT_EQ(client->isTaskPermanentlyDismissed("task"), tasks == dismissed) << tasks.description();
  }
}

TEST(NamedSettingsClientTest, ItFindsTheDaemonAndSubscribesUnlessTheOperatorManagesTheProduct) {
  const std::filesystem::path parameters = hostPath("/Library/Quillmarsh/qxmac/config/parameters");
  std::filesystem::create_directories(parameters.parent_path());
  const auto settings = std::make_shared<Settings>();
  const ScriptedService<qmsettingsdProtocol> service(settings, kSettingsServiceName);
  for (const bool isManaged : {true, false}) {
    std::ofstream(parameters) << "PRODUCT=" << (isManaged ? "mdr" : "orchard") << "\n";
    const std::shared_ptr<QMRSettingsClient> client = QMRSettingsClient::createNonPrivilegedClient();
    EXPECT_EQ(client->isConnected(), !isManaged);
    client->updateWispError(nullptr);
    EXPECT_EQ(settings->reports.take(), "error none");
    EXPECT_EQ(settings->subscriptions.size(), isManaged ? 0U : 2U);
    const RemoteInterface interface = client->xpcConnection()->remoteObjectInterface();
    std::string classes;
    for (const CodedClass& its : interface.method("getTidal2URLsWithCallback:")->reply->at(1).classes)
      classes.append(its.name).append(" ");
    EXPECT_EQ(classes, "NSArray QMRTidal2URL ");
  }
  std::filesystem::remove(parameters);
}

}  // namespace
