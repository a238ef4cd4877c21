// The settings' road: the staged settings daemon, the daemon and this program as its clients, a person who
// edits the file, and the command line.
#include <iostream>

#include "road/installation.hpp"
#include "settings/QMRSettingsClient.hpp"
#include "settings/qmsettingsdProtocol.hpp"
#include "settings/remote_action_protocols.hpp"
#include "support/child_process.hpp"
#include "support/testing.hpp"

namespace {

using testing::HasSubstr;

// A client that subscribes to remote actions and, unlike those of the product, tries again at once.
class EagerSubscriber final : public QMRServiceClient, public RemoteActionEventsProtocol {
 public:
  static std::shared_ptr<EagerSubscriber> create() {
    auto self = std::make_shared<EagerSubscriber>();
    self->subscribeToUpdateWithProtocol("RemoteActionEventsProtocol");
    return self;
  }
  EagerSubscriber() : QMRServiceClient(kSettingsServiceName, remoteInterface<qmsettingsdProtocol>()) {}

  void remoteActionWasPushedWithName(const std::string&, const XPCEndpoint&, const Dictionary&,
                                     Block<void(std::int64_t)> finishCallback) override {
    ++pushed;
    finishCallback(7);
  }
  std::atomic<int> pushed = 0;

 private:
  RemoteExport exportForProtocol(const std::string&) override {
    return remoteExport<RemoteActionEventsProtocol>(
        std::static_pointer_cast<EagerSubscriber>(shared_from_this()));
  }
  void reconnectAfter(std::chrono::seconds, Block<void()> work) override {
    queue_.after(std::chrono::milliseconds(10), std::move(work));
  }
  const Queue queue_ = Queue::serial("reconnect");
};

class SettingsRoad : public testing::Test {
 protected:
  void SetUp() override {
    write("# a person's\n[system]\nnumber = 0\n");
    settings_ = installation_.startSettingsDaemon();
  }
  // As editors do: a new file takes the old one's place.
  void write(const std::string& content) const {
    std::ofstream(file_.native() + ".new") << content;
    fs::rename(file_.native() + ".new", file_);
  }
  void writeNumber(std::int64_t number) const {
    write("# a person's\n[system]\nnumber = " + std::to_string(number) + "\n");
  }
  CommandResult qmr(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {installation_.program("qmr"), "settings"});
    return runCommand(arguments);
  }
  std::string push() const { return qmr({"push-action", "scan"}).output; }
  static std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
  }

  const Installation installation_{};
  const fs::path file_ = installation_.product / "config/settings.toml";
  Installation::Service settings_;
};

TEST_F(SettingsRoad, TheDaemonIsSubscribedOnceWhicheverOfTheTwoStartsFirst) {
  settings_->end(SIGTERM);
  Installation::Service daemon = installation_.startDaemon();
  for (const bool daemonIsFirst : {true, false}) {
    if (!daemonIsFirst) daemon->end(SIGTERM);
    if (daemonIsFirst)
      settings_ = installation_.startSettingsDaemon();
    else
      daemon = installation_.startDaemon();
    const std::string row = "process " + std::to_string(daemon->pid()) + ": result 3 (no handler)\n";
    EXPECT_TRUE(eventually([&] { return push() == row; })) << push();
  }
}

TEST_F(SettingsRoad, AfterEachRestartTheSettingsAreCurrentAndOneSubscriptionLives) {
  const auto client = QMRSettingsClient::create();
  const auto seen = std::make_shared<std::atomic<std::int64_t>>(-1);  // a callback may outlive the shutdown
  client->addSettingsUpdateCallback([seen](const Dictionary&, const Dictionary& system) {
    const auto* number = find<std::int64_t>(system, "number");
    *seen = number == nullptr ? -1 : *number;
  });
  const auto subscriber = EagerSubscriber::create();
  for (int i = 1; i <= 10; ++i) {
    settings_->end(SIGKILL);
    writeNumber(i);
    settings_ = installation_.startSettingsDaemon();
    EXPECT_TRUE(eventually([&] { return *seen == i; })) << i;
    EXPECT_TRUE(eventually([&] { return occurrences(push(), "result 7") == 1; })) << push();
    const int before = subscriber->pushed;
    EXPECT_EQ(occurrences(push(), "result 7"), 1u);
    EXPECT_EQ(subscriber->pushed, before + 1);
  }
  subscriber->shutdown();
  client->shutdown();
}

TEST_F(SettingsRoad, AHandEditReachesItsObserversAndABrokenOneDoesNot) {
  const auto client = QMRSettingsClient::create();
  struct Observed {
    std::atomic<std::int64_t> number = -1;
    std::atomic<std::chrono::steady_clock::time_point> when;
  };
  const auto seen = std::make_shared<Observed>();  // a callback may outlive the shutdown
  client->addSettingsUpdateCallback([seen](const Dictionary&, const Dictionary& system) {
    const auto* number = find<std::int64_t>(system, "number");
    seen->when = std::chrono::steady_clock::now();
    seen->number = number == nullptr ? -1 : *number;
  });
  ASSERT_TRUE(eventually([&] { return qmr({"get", "number"}).exitStatus == 0; }));
  std::vector<std::chrono::microseconds> times;
  for (int i = 1; i <= 51; ++i) {
    const auto start = std::chrono::steady_clock::now();
    writeNumber(i);
    ASSERT_TRUE(eventually([&] { return seen->number == i; })) << i;
    times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(seen->when.load() - start));
  }
  std::sort(times.begin(), times.end());
  std::cout << "from the file's change to the observer: median " << times[25].count() << " us, worst "
            << times.back().count() << " us\n";

  write("[system]\nnumber = 52\nbroken\n");
  ASSERT_TRUE(eventually([&] {
    return contentOf(installation_.log("qmsettingsd")).find("line 3, column 7") != std::string::npos;
  }));
  const CommandResult former = qmr({"get", "number"});
  EXPECT_EQ(former.exitStatus, 0);
  EXPECT_THAT(former.output,
              testing::AllOf(HasSubstr("line 3, column 7"), testing::EndsWith("from before\n51\n")));
  const CommandResult refused = qmr({"set", "number", "53"});
  EXPECT_EQ(refused.exitStatus, 2);
  EXPECT_THAT(refused.output, HasSubstr("line 3, column 7"));
  EXPECT_EQ(seen->number, 51);
  client->shutdown();
}

TEST_F(SettingsRoad, APersonReadsChangesAndWatchesFromTheCommandLine) {
  ChildProcess watch({installation_.program("qmr"), "settings", "watch"}, true);
  const struct {
    std::vector<std::string> arguments;
    int exitStatus;
    std::string output;
    std::string watched;
  } cases[] = {
      {{"set", "wisp-config-state", "2"}, 0, "", "system wisp-config-state = 2"},
      {{"get", "wisp-config-state", "--json"}, 0, "2\n", ""},
      {{"set", "--user", "greeting", "dear\x1b[2J"}, 0, "", "user greeting = \"dear\\e[2J\""},
      {{"get", "--user", "greeting"}, 0, "dear\\e[2J\n", ""},
      {{"set", "list", "[1, {\"a\": true}]"}, 0, "", "system list = [1,{\"a\":true}]"},
      {{"set", "x", "[null]"}, 2, "qmr: settings: VALUE must", ""},
      {{"unset", "list"}, 0, "", "system list unset"},
      {{"unset", "list"}, 1, "qmr: settings: There is no system setting \"list\"", ""},
      {{"allow-list", "--add", "https://a.example/"}, 0, "", "allow-list + https://a.example/"},
      {{"show"}, 0, "system number = 0\nsystem wisp-config-state = 2\nuser greeting", ""},
      {{"push-action", "scan", "[]"}, 2, "qmr: settings: DATA must", ""},
  };
  EXPECT_THAT(watch.readLine(), HasSubstr("watching"));
  for (const auto& [arguments, exitStatus, output, watched] : cases) {
    const CommandResult result = qmr(arguments);
    EXPECT_EQ(result.exitStatus, exitStatus) << result.output;
    EXPECT_EQ(result.output.substr(0, output.size()), output);
    if (watched.empty()) continue;
    EXPECT_EQ(watch.readLine(), watched);
  }
  settings_->end(SIGKILL);
  EXPECT_THAT(watch.readLine(), HasSubstr("waiting for it to come back"));
  EXPECT_EQ(qmr({"show"}).exitStatus, 2);
  EXPECT_THAT(qmr({"show"}).output, HasSubstr("com.quillmarsh.qmsettingsd cannot be reached at " +
                                              installation_.settingsSocket.native() + "\n"));
  std::ofstream(file_, std::ios::app) << "later = true\n";
  settings_ = installation_.startSettingsDaemon();
  EXPECT_EQ(watch.readLine(), "user later = true") << "[user] is the last table";
  ::kill(watch.pid(), SIGINT);
  EXPECT_EQ(watch.wait(), 128 + SIGINT);
}

TEST_F(SettingsRoad, ADaemonStartedWithoutStandardDescriptorsUsesThemForNothingElse) {
  settings_->end(SIGTERM);
  const ChildProcess daemon(
      {"bash", "-c", "exec " + installation_.program("qmsettingsd").native() + " <&- >&- 2>&-"});
  ASSERT_TRUE(eventually([&] { return qmr({"show"}).exitStatus == 0; }));
  for (const char* descriptor : {"0", "1", "2"})
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(daemon.pid()) + "/fd/" + descriptor), "/dev/null");
}

}  // namespace
