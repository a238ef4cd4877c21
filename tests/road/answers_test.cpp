// The whole road: a signed peer, the staged daemon, the staged agent.
#include <nlohmann/json.hpp>

#include "companions/samples.hpp"
#include "road/installation.hpp"

namespace {

class Road : public RoadTest {
 protected:
  // Unlike any other file.
  fs::path freshScript() const {
    static int number = 0;
    const std::string name = "script" + std::to_string(++number);
    return file(name, "#!/bin/sh\necho " + std::to_string(::getpid()) + " " + name + "\n");
  }
  static void expectVerdict(std::int64_t expected, const XPCDictionary& reply) {
    EXPECT_EQ(reply.value("reputationVerdict"), XPCObject::int64(expected));
  }
  void expectNoProvider() const {
    EXPECT_EQ(ReputationPeer().ask(freshScript()).getString("error-string"),
              "No reputation provider available");
  }
};

TEST_F(Road, WhatAPersonPutsIntoTheStoreIsAnsweredAtOnceUntilItIsRemoved) {
  const fs::path clean = file("clean", "known to be clean");
  const fs::path bad = file("bad", "known to be bad");
  installation_.run("qmverdicts",
                    {"add", clean, "--verdict", "known_clean", "--prevalence", "200", "--ttl", "3600"});
  installation_.run("qmverdicts", {"add", bad, "--verdict", "malicious", "--name", "Test.Bad"});
  EXPECT_THAT(installation_.run("qmverdicts", {"show", bad}), testing::HasSubstr("malicious"));
  EXPECT_THAT(installation_.run("qmverdicts", {"count"}), testing::ContainsRegex("malicious +1"));

  const ReputationPeer peer;
  for (const bool downloaded : {false, true}) {
    const XPCDictionary reply = peer.ask(clean, downloaded);
    expectVerdict(2, reply);
    EXPECT_EQ(reply.value("prevalence"), XPCObject::int64(200));
    EXPECT_EQ(reply.value("ttl"), XPCObject::int64(3600));
    expectVerdict(0, peer.ask(bad, downloaded));
  }
  EXPECT_EQ(peer.unasked().size(), 0U);
  const std::string lines = installation_.run("qmr", {"check", "--json", bad, clean}, 1);
  EXPECT_TRUE(nlohmann::json::accept(lines.substr(0, lines.find('\n')))) << lines;

  installation_.run("qmverdicts", {"remove", bad});
  installation_.run("qmverdicts", {"show", bad}, 1);
  expectVerdict(1, peer.ask(bad));
}

TEST_F(Road, AnUnknownDownloadIsAnalysedAndAnsweredAgain) {
  const ReputationPeer peer;
  const ReputationPeer bystander;
  const fs::path script = file("eicar.com", standardTestFile());
  XPCDictionary request = requestFor(script, true);
  request.setValue("requestId", XPCObject::string("r1"));
  // What is no download is only looked up: no answer of it comes before the other's.
  expectVerdict(1, peer.ask(file("empty", "")));
  expectVerdict(1, peer.ask(freshScript()));
  const XPCDictionary reply = peer.ask(request);
  expectVerdict(1, reply);
  EXPECT_EQ(reply.value("requestId"), XPCObject::string("r1"));

  const XPCDictionary delayed = peer.unasked().waitForOne();
  expectVerdict(0, delayed);
  EXPECT_TRUE(delayed.value("infectionName"));
  EXPECT_EQ(delayed.value("filename"), XPCObject::string(script.native()));
  EXPECT_FALSE(delayed.value("requestId"));
  EXPECT_EQ(bystander.unasked().size(), 0U);
  expectVerdict(0, bystander.ask(script));  // the analysis is remembered
}

TEST_F(Road, TheNextConnectionHasTheBackendThatIsChosenThen) {
  const fs::path parameters = installation_.product / "config/parameters";
  fs::rename(parameters, parameters.native() + ".away");
  // Wisp, which no settings say is configured.
  const XPCDictionary unasked = ReputationPeer().ask(freshScript());
  expectVerdict(1, unasked);
  EXPECT_EQ(unasked.value("ttl"), XPCObject::int64(0));
  fs::rename(parameters.native() + ".away", parameters);
  const XPCDictionary answered = ReputationPeer().ask(freshScript());
  expectVerdict(1, answered);
  EXPECT_NE(answered.value("ttl"), XPCObject::int64(0));

  const fs::path agent = installation_.program("skyvaultd");
  fs::rename(agent, agent.native() + ".away");
  expectNoProvider();
  fs::rename(agent.native() + ".away", agent);
  EXPECT_THAT(contentOf(installation_.log("qmreputationd")),
              testing::HasSubstr("Error instantiating Basalt reputation provider!"));
}

TEST_F(Road, ARequestWhoseBackendCannotBeReachedIsLetGoOf) {
  const fs::path parameters = installation_.product / "config/parameters";
  fs::rename(parameters, parameters.native() + ".away");
  const auto settings = installation_.startSettingsDaemon();
  installation_.run("qmr", {"settings", "set", "wisp-config-state", "2"});
  daemon_->end(SIGTERM);
  daemon_ = installation_.startDaemon();
  // No Wisp core daemon is installed. Until the daemon has the settings, it answers.
  const fs::path script = freshScript();
  const std::vector<std::string> check{installation_.program("qmr"), "check", script};
  CommandResult result;
  EXPECT_TRUE(eventually([&] { return (result = runCommand(check)).exitStatus != 0; }));
  EXPECT_EQ(result.exitStatus, 2);
  EXPECT_THAT(result.output, testing::HasSubstr("the service dropped the request without an answer"));
  EXPECT_TRUE(eventually([&] { return openDescriptors(daemon_->pid(), script) == 0; }));
  const std::vector<std::string> errorState{installation_.program("qmr"), "settings", "get",
                                            "wisp-error-state"};
  EXPECT_TRUE(eventually([&] { return runCommand(errorState).output == "4099\n"; }));
  fs::rename(parameters.native() + ".away", parameters);
}

TEST_F(Road, OnlyAFailedHashKeepsItsDescriptor) {
  const ReputationPeer peer;
  const fs::path script = freshScript();
  XPCDictionary request = requestFor(script);
  expectVerdict(1, peer.ask(request));
  EXPECT_TRUE(eventually([&] { return openDescriptors(daemon_->pid(), script) == 0; }));
  request.setInt64("filesize", 4);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(peer.ask(request).getString("error-string"), "Failed to calculate hashes for supplied fd");
  EXPECT_TRUE(eventually([&] { return openDescriptors(daemon_->pid(), script) == 3; }));
}

TEST_F(Road, ASecondOneGivesUpAndADaemonAfterACrashTakesTheName) {
  for (const char* name : {"qmreputationd", "skyvaultd"}) installation_.run(name, {}, 1);
  expectVerdict(1, ReputationPeer().ask(freshScript()));
  daemon_->end(SIGKILL);
  daemon_ = installation_.startDaemon();
  expectVerdict(1, ReputationPeer().ask(freshScript()));
}

// Passes the listening socket as a service manager does, and waits for the daemon's word that it is ready.
TEST_F(Road, ASocketOfTheServiceManagerIsTaken) {
  daemon_->end(SIGTERM);
  const auto bindTo = [](int type, const fs::path& path) {
    fs::remove(path);
    FileDescriptor socket(::socket(AF_UNIX, type, 0));
    const auto address = SocketAddress::create(path);
    EXPECT_EQ(::bind(socket.get(), address->address(), address->length()), 0);
    return socket;
  };
  FileDescriptor listening = bindTo(SOCK_STREAM, installation_.daemonSocket);
  ASSERT_EQ(::listen(listening.get(), 64), 0);
  const fs::path notifyPath = installation_.root / "notify";
  const FileDescriptor notify = bindTo(SOCK_DGRAM | SOCK_CLOEXEC, notifyPath);
  const std::string script = "exec 3<&" + std::to_string(listening.get()) +
                             "; LISTEN_PID=$$ LISTEN_FDS=1 LISTEN_FDNAMES=com.quillmarsh.qmreputationd "
                             "NOTIFY_SOCKET=" +
                             notifyPath.native() + " exec " + installation_.program("qmreputationd").native();
  daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{"bash", "-c", script}, true,
                                           installation_.log("qmreputationd"));
  listening.reset();
  char word[256] = {};
  ASSERT_GT(::recv(notify.get(), word, sizeof word - 1, 0), 0);
  EXPECT_THAT(word, testing::HasSubstr("READY=1"));
  expectVerdict(1, ReputationPeer().ask(freshScript()));
  // Which has no lock.
  installation_.run("qmreputationd", {}, 1);
  expectVerdict(1, ReputationPeer().ask(freshScript()));
}

}  // namespace
