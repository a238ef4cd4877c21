// The road over the Wisp core daemon: the real one, one that dies or falls silent while somebody waits, and
// one that answers what nobody may.
#include "companions/samples.hpp"
#include "road/installation.hpp"
#include "support/scripted_service.hpp"

namespace {

using testing::HasSubstr;
using testing::Not;

class WispRoad : public testing::Test {
 protected:
  // The Basalt backend is off, and the settings say that the Wisp service is configured.
  void SetUp() override {
    fs::remove_all(installation_.product / "var");
    fs::remove(installation_.product / "config/parameters");
    std::ofstream(installation_.product / "config/settings.toml") << "[system]\nwisp-config-state = 2\n";
    fs::create_directories(files_);
    settings_ = installation_.startSettingsDaemon();
    core_ = installation_.startWispCore();
    daemon_ = installation_.startDaemon();
    installation_.run("qmverdicts", {"add", file("bad", "known to be bad"), "--verdict", "malicious",
                                     "--name", "Test.Bad", "--prevalence", "200", "--ttl", "3600"});
    // The daemon has no settings yet when its first peer comes.
    EXPECT_TRUE(eventually([&] { return isAnswered(); }));
  }
  void TearDown() override {
    EXPECT_TRUE(daemon_->isRunning());
    EXPECT_TRUE(eventually([&] { return openDescriptors(daemon_->pid(), files_ / "bad") == 0; }));
    fs::remove_all(files_);
  }
  fs::path file(const std::string& name, const std::string& content) const {
    std::ofstream(files_ / name, std::ios::binary) << content;
    return files_ / name;
  }
  // With the verdict of the store, and so with no error any more.
  bool isAnswered() const {
    return ReputationPeer().ask(files_ / "bad").value("reputationVerdict") == XPCObject::int64(0);
  }
  // What the settings daemon has written down.
  std::string errorState() const { return contentOf(installation_.product / "var/settings-state.toml"); }
  bool showsError(const std::string& code) const {
    return eventually([&] { return errorState().find("wisp-error-state = " + code) != std::string::npos; });
  }
  bool showsNoError() const {
    return eventually([&] { return errorState().find("wisp-error") == std::string::npos; });
  }

  const Installation installation_{};
  const fs::path files_ = installation_.root / "files";
  Installation::Service settings_;
  Installation::Service core_;
  Installation::Service daemon_;
};

TEST_F(WispRoad, AFileKnownByItsSHA1GetsItsVerdictAndAnUnknownOneIsScannedInTheBackground) {
  const ReputationPeer peer;
  const XPCDictionary reply = peer.ask(files_ / "bad");
  EXPECT_EQ(reply.value("reputationVerdict"), XPCObject::int64(0));
  EXPECT_EQ(reply.value("prevalence"), XPCObject::int64(200));
  EXPECT_EQ(reply.value("ttl"), XPCObject::int64(3600));
  EXPECT_EQ(reply.getString("infectionName"), "Test.Bad");

  const fs::path unknown = file("eicar.com", standardTestFile());
  EXPECT_EQ(peer.ask(unknown).value("reputationVerdict"), XPCObject::int64(1));
  EXPECT_TRUE(
      eventually([&] { return peer.ask(unknown).value("reputationVerdict") == XPCObject::int64(0); }));
  EXPECT_THAT(errorState(), Not(HasSubstr("wisp-error")));
  core_->end(SIGTERM);
  EXPECT_EQ(core_->wait(), 128 + SIGTERM);
}

// Held up first, so that the request is under way.
TEST_F(WispRoad, ARequestWhoseDaemonDiesIsLetGoOfAndItsSuccessorAnswersTheNext) {
  ::kill(core_->pid(), SIGSTOP);
  const ReputationPeer peer;
  const auto waiting = peer.send(requestFor(files_ / "bad"));
  EXPECT_TRUE(eventually([&] { return openDescriptors(daemon_->pid(), files_ / "bad") == 1; }));
  core_->end(SIGKILL);
  EXPECT_EQ(waiting->waitForOne().type(), XPCType::error);
  EXPECT_TRUE(showsError("409")) << errorState();
  core_ = installation_.startWispCore();
  EXPECT_TRUE(isAnswered());
  EXPECT_TRUE(showsNoError()) << errorState();
}

TEST_F(WispRoad, ADaemonThatIsSilentIsAnErrorAfterItsTimeAndASecond) {
  ::kill(core_->pid(), SIGSTOP);
  const auto start = std::chrono::steady_clock::now();
  const XPCDictionary reply = ReputationPeer().ask(files_ / "bad");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
  EXPECT_EQ(reply.value("ttl"), XPCObject::int64(1));
  EXPECT_EQ(reply.getString("error-string"), "The Wisp core daemon gave no answer");
  EXPECT_FALSE(reply.value("reputationVerdict"));
  EXPECT_TRUE(showsError("0")) << errorState();
  ::kill(core_->pid(), SIGCONT);
  EXPECT_TRUE(isAnswered());
  EXPECT_TRUE(showsNoError()) << errorState();
}

TEST_F(WispRoad, AnAnswerOfForeignClassesIsAnErrorAndTheNextGoodOneClearsIt) {
  const auto record = [](const char* name, const XPCDictionary& fields) {
    XPCDictionary coded = XPCDictionary::create();
    coded.setString("class", name);
    coded.setValue("fields", fields);
    return coded;
  };
  const auto verdict = [&](const XPCObject& detectionName) {
    XPCDictionary fields = XPCDictionary::create();
    fields.setInt64("safetyVerdict", 3);
    fields.setValue("detectionName", detectionName);
    return record("QMRWispQvsResponseObjC", fields);
  };
  const std::pair<XPCObject, bool> answers[] = {
      {record("QMRWispScanCompleteSummaryObjC", XPCDictionary::create()), false},
      {verdict(XPCObject::int64(7)), false},
      {XPCObject::string("malicious"), false},
      {verdict(record("QMRWispQvsResponseObjC", XPCDictionary::create())), false},
      {verdict(XPCObject::string("Test.Unwanted")), true},
  };
  std::atomic<std::size_t> index = 0;
  core_->end(SIGKILL);
  ScriptedService core("com.quillmarsh.wisp.qmwpcored", [&](const XPCDictionary& request) {
    XPCDictionary reply = request.createReply();
    XPCArray values = XPCArray::create();
    values.append(answers[index].first);
    values.append(XPCObject::null());
    reply.setValue("reply", values);
    request.remoteConnection().sendMessage(reply);
  });
  for (; index < std::size(answers); ++index) {
    const XPCObject reply = ReputationPeer().send(requestFor(files_ / "bad"))->waitForOne();
    if (!answers[index].second) {
      EXPECT_EQ(reply.type(), XPCType::error) << index;
      EXPECT_TRUE(showsError("4101")) << errorState();
      continue;
    }
    EXPECT_EQ(reply.asDictionary().value("reputationVerdict"), XPCObject::int64(3));
    EXPECT_TRUE(showsNoError()) << errorState();
  }
}

}  // namespace
