// Both backends of one running installation: switched by the parameters file and by a setting, with nothing
// started anew.
#include "road/installation.hpp"

namespace {

class Backends : public RoadTest {
 protected:
  void SetUp() override {
    chooseBasalt(true);
    fs::remove(installation_.product / "config/settings.toml");
    RoadTest::SetUp();
    settings_ = installation_.startSettingsDaemon();
    wisp_ = installation_.startWispCore();
    installation_.run("qmverdicts",
                      {"add", bad_, "--verdict", "malicious", "--name", "Bad", "--ttl", "3600"});
    installation_.run("qmverdicts", {"add-url", "bad.example", "--verdict", "malicious", "--ttl", "3600"});
  }
  void TearDown() override {
    chooseBasalt(true);
    RoadTest::TearDown();
  }
  // As an installer does: a new file takes the old one's place.
  void chooseBasalt(bool basalt) const {
    const fs::path parameters = installation_.product / "config/parameters";
    std::ofstream(parameters.native() + ".new") << (basalt ? "BASALT=true\n" : "BASALT=false\n");
    fs::rename(parameters.native() + ".new", parameters);
  }
  void configureWisp(const char* state) const {
    installation_.run("qmr", {"settings", "set", "wisp-config-state", state});
  }
  // Of the answer about the bad file; -1 each when there is none with a verdict.
  std::pair<std::int64_t, std::int64_t> levelAndTTL(const ReputationPeer& peer, bool isDownloaded) const {
    const XPCObject reply = peer.send(requestFor(bad_, isDownloaded))->waitForOne();
    if (reply.type() != XPCType::dictionary || !reply.asDictionary().value("reputationVerdict"))
      return {-1, -1};
    return {reply.asDictionary().value("reputationVerdict").int64Value(),
            reply.asDictionary().value("ttl").int64Value()};
  }
  bool answers(const ReputationPeer& peer, std::pair<std::int64_t, std::int64_t> expected) const {
    return levelAndTTL(peer, false) == expected && levelAndTTL(peer, true) == expected;
  }
  CommandResult qmrURL() const {
    return runCommand({installation_.program("qmr"), "url", "-q", "http://www.bad.example/"});
  }

  static constexpr std::pair<std::int64_t, std::int64_t> kAnswered{0, 3600};
  static constexpr std::pair<std::int64_t, std::int64_t> kWispIsNotAvailable{1, 0};

  const fs::path bad_ = [this] {
    fs::create_directories(files_);
    return file("bad", "known to be bad");
  }();
  Installation::Service settings_;
  Installation::Service wisp_;
};

TEST_F(Backends, TheParametersFileDecidesForTheNextConnectionAndTheSettingForTheNextRequest) {
  const ReputationPeer first;
  EXPECT_EQ(levelAndTTL(first, true), kAnswered);
  EXPECT_EQ(qmrURL().exitStatus, 1);

  chooseBasalt(false);
  const ReputationPeer second;
  EXPECT_EQ(levelAndTTL(second, true), kWispIsNotAvailable);
  EXPECT_EQ(levelAndTTL(second, false), kWispIsNotAvailable);
  EXPECT_EQ(levelAndTTL(first, true), kAnswered) << "a connection keeps its backend";
  EXPECT_EQ(qmrURL().exitStatus, 2);
  EXPECT_THAT(qmrURL().output,
              testing::HasSubstr("qmr: the setting wisp-config-state is not set: \"qmr set"));

  configureWisp("2");
  EXPECT_TRUE(eventually([&] { return answers(second, kAnswered); }));
  const CommandResult url = qmrURL();
  EXPECT_EQ(url.exitStatus, 1);
  EXPECT_THAT(url.output, testing::HasSubstr(" -100        3600  Wisp "));

  configureWisp("1");
  EXPECT_TRUE(eventually([&] { return answers(second, kWispIsNotAvailable); }));
  chooseBasalt(true);
  EXPECT_EQ(levelAndTTL(ReputationPeer(), true), kAnswered);
  EXPECT_EQ(levelAndTTL(second, true), kWispIsNotAvailable) << "a connection keeps its backend";
  EXPECT_THAT(qmrURL().output, testing::HasSubstr(" -100        3600  Basalt "));
  EXPECT_TRUE(wisp_->isRunning());
}

TEST_F(Backends, AWispServiceThatIsGoneHarmsNeitherItsNextAnswersNorTheOtherBackend) {
  const ReputationPeer basalt;
  basalt.waitUntilSeen();
  chooseBasalt(false);
  configureWisp("2");
  const ReputationPeer peer;
  ASSERT_TRUE(eventually([&] { return answers(peer, kAnswered); }));
  wisp_->end(SIGKILL);
  const CommandResult url = qmrURL();
  EXPECT_EQ(url.exitStatus, 2) << url.output;
  EXPECT_THAT(url.output, testing::HasSubstr("error           -  Wisp "));
  EXPECT_EQ(levelAndTTL(basalt, true), kAnswered);
  wisp_ = installation_.startWispCore();
  EXPECT_TRUE(eventually([&] { return answers(ReputationPeer(), kAnswered); }));
  EXPECT_EQ(qmrURL().exitStatus, 1);
}

}  // namespace
