// The whole road: a signed peer, the staged daemon, the staged agent.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "road/installation.hpp"
#include "road/reputation_peer.hpp"

namespace qm::test {
namespace {

// Put together here, so that this source is not taken for the test file.
const std::string kTestFile =
    std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-") + "ANTIVIRUS-TEST-FILE!$H+H*";

class Road : public RoadTest {
 protected:
  // Unlike any other file.
  fs::path freshScript() const {
    static int number = 0;
    const std::string name = "script" + std::to_string(++number);
    return file(name, "#!/bin/sh\necho " + std::to_string(::getpid()) + " " + name + "\n");
  }
};

TEST_F(Road, WhatTheAgentKnowsIsAnsweredAtOnce) {
  const fs::path clean = file("clean", "known to be clean");
  const fs::path bad = file("bad", "known to be bad");
  installation_.run("qmverdicts",
                    {"add", clean, "--verdict", "known_clean", "--prevalence", "200", "--ttl", "3600"});
  installation_.run("qmverdicts", {"add", bad, "--verdict", "malicious", "--name", "Test.Bad"});

  ReputationPeer peer;
  for (const bool downloaded : {false, true}) {
    XPCDictionary reply = peer.ask(clean, downloaded);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply.value("reputationVerdict"), XPCObject::int64(2));
    EXPECT_EQ(reply.value("prevalence"), XPCObject::int64(200));
    EXPECT_EQ(reply.value("ttl"), XPCObject::int64(3600));
    EXPECT_EQ(reply.value("filename"), XPCObject::string(clean.native()));
    EXPECT_FALSE(reply.value("infectionName"));
    reply = peer.ask(bad, downloaded);
    EXPECT_EQ(reply.value("reputationVerdict"), XPCObject::int64(0));
    EXPECT_EQ(reply.value("infectionName"), XPCObject::string("Test.Bad"));
  }
  EXPECT_TRUE(peer.unasked().empty());
  const std::string lines = installation_.run("qmr", {"check", "--json", bad, clean}, 1);
  const auto first = nlohmann::json::parse(lines.substr(0, lines.find('\n')), nullptr, false);
  EXPECT_TRUE(first.is_object()) << lines;
}

TEST_F(Road, APersonSeesAndEditsTheStoreWhileTheAgentServes) {
  const fs::path bad = file("bad", "known to be bad");
  installation_.run("qmverdicts", {"add", bad, "--verdict", "malicious", "--name", "Test.\x1b[2JBad"});
  EXPECT_THAT(installation_.run("qmverdicts", {"show", bad}),
              testing::AllOf(testing::HasSubstr("malicious"), testing::Not(testing::HasSubstr("\x1b"))));
  EXPECT_THAT(installation_.run("qmverdicts", {"count"}), testing::ContainsRegex("malicious +1"));
  EXPECT_EQ(ReputationPeer().ask(bad).value("reputationVerdict"), XPCObject::int64(0));
  installation_.run("qmverdicts", {"remove", bad});
  installation_.run("qmverdicts", {"show", bad}, 1);
  EXPECT_EQ(ReputationPeer().ask(bad).value("reputationVerdict"), XPCObject::int64(1));
}

TEST_F(Road, AnUnknownDownloadIsAnalysedAndAnsweredAgain) {
  ReputationPeer peer;
  ReputationPeer bystander;
  const fs::path script = file("eicar.com", kTestFile);
  XPCDictionary request = requestFor(script, true);
  request.setValue("requestId", XPCObject::string("r1"));
  // What is no download is only looked up: no answer of it comes before the other's.
  EXPECT_EQ(peer.ask(file("empty", "")).value("reputationVerdict"), XPCObject::int64(1));
  EXPECT_EQ(peer.ask(freshScript()).value("reputationVerdict"), XPCObject::int64(1));
  const XPCDictionary reply = peer.ask(request);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply.value("reputationVerdict"), XPCObject::int64(1));
  EXPECT_EQ(reply.value("requestId"), XPCObject::string("r1"));

  ASSERT_TRUE(eventually([&] { return !peer.unasked().empty(); })) << "no delayed answer";
  const XPCDictionary delayed = peer.unasked().front();
  EXPECT_EQ(delayed.value("reputationVerdict"), XPCObject::int64(0));
  EXPECT_TRUE(delayed.value("infectionName"));
  EXPECT_EQ(delayed.value("filename"), XPCObject::string(script.native()));
  EXPECT_FALSE(delayed.value("requestId"));
  EXPECT_TRUE(bystander.unasked().empty());

  EXPECT_EQ(bystander.ask(script).value("reputationVerdict"), XPCObject::int64(0))
      << "the analysis is remembered";
}

TEST_F(Road, WithoutABackendRequestsAreAnsweredWithAnError) {
  const fs::path parameters = installation_.product / "config/parameters";
  fs::rename(parameters, parameters.native() + ".away");
  EXPECT_EQ(ReputationPeer().ask(freshScript()).getString("error-string"),
            "No reputation provider available");
  fs::rename(parameters.native() + ".away", parameters);
  EXPECT_EQ(ReputationPeer().ask(freshScript()).value("reputationVerdict"), XPCObject::int64(1))
      << "the next connection follows";
  fs::rename(installation_.program("skyvaultd"), installation_.program("skyvaultd.away"));
  EXPECT_EQ(ReputationPeer().ask(freshScript()).getString("error-string"),
            "No reputation provider available");
  fs::rename(installation_.program("skyvaultd.away"), installation_.program("skyvaultd"));
  std::ifstream log(installation_.log("qmreputationd"));
  const std::string lines{std::istreambuf_iterator<char>(log), {}};
  EXPECT_THAT(lines, testing::HasSubstr("Error instantiating Basalt reputation provider!"));
}

TEST_F(Road, AnAgentThatDiesIsAnErrorAndItsSuccessorAnswers) {
  const fs::path script = freshScript();
  ReputationPeer peer;
  ASSERT_EQ(peer.ask(script).value("reputationVerdict"), XPCObject::int64(1));
  agent_.end(SIGKILL);
  const XPCDictionary reply = peer.ask(script);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply.value("error"), XPCObject::boolean(true));
  EXPECT_TRUE(reply.getString("error-string"));
  EXPECT_FALSE(reply.value("reputationVerdict"));
  agent_ = installation_.startAgent();
  EXPECT_EQ(peer.ask(script).value("reputationVerdict"), XPCObject::int64(1)) << "on the same connection";
}

TEST_F(Road, OnlyAFailedHashKeepsItsDescriptor) {
  ReputationPeer peer;
  const fs::path script = freshScript();
  XPCDictionary request = requestFor(script, false);
  EXPECT_TRUE(peer.ask(request));
  EXPECT_TRUE(eventually([&] { return openDescriptors(daemon_.pid(), script) == 0; }));
  request.setInt64("filesize", 4);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(peer.ask(request).getString("error-string"), "Failed to calculate hashes for supplied fd");
  EXPECT_TRUE(eventually([&] { return openDescriptors(daemon_.pid(), script) == 3; }));
}

TEST_F(Road, ASecondDaemonGivesUpAndOneAfterACrashTakesTheName) {
  Process second(installation_.program("qmreputationd"), {}, installation_.log("second"));
  EXPECT_EQ(second.wait(), 1);
  EXPECT_TRUE(ReputationPeer().ask(freshScript()));
  daemon_.end(SIGKILL);
  daemon_ = installation_.startDaemon();
  EXPECT_TRUE(ReputationPeer().ask(freshScript()));
}

// Passes the listening socket as a service manager does, and waits for the daemon's word that it is ready.
TEST_F(Road, ASocketOfTheServiceManagerIsTaken) {
  daemon_.end(SIGTERM);
  const auto bindTo = [](int type, const fs::path& path) {
    fs::remove(path);
    const int fd = ::socket(AF_UNIX, type, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.native().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return FileDescriptor(fd);
  };
  FileDescriptor listening = bindTo(SOCK_STREAM, installation_.daemonSocket);
  ASSERT_EQ(::listen(listening.get(), 64), 0);
  const fs::path notifyPath = installation_.root / "notify";
  const FileDescriptor notify = bindTo(SOCK_DGRAM | SOCK_CLOEXEC, notifyPath);
  daemon_ =
      Process("/bin/bash",
              {"-c", "exec 3<&" + std::to_string(listening.get()) +
                         "; LISTEN_PID=$$ LISTEN_FDS=1 LISTEN_FDNAMES=com.quillmarsh.qmreputationd "
                         "NOTIFY_SOCKET=" +
                         notifyPath.native() + " exec " + installation_.program("qmreputationd").native()},
              installation_.log("qmreputationd"));
  listening.reset();
  char word[256] = {};
  const timeval patience{20, 0};
  ::setsockopt(notify.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  ASSERT_GT(::recv(notify.get(), word, sizeof word - 1, 0), 0);
  EXPECT_THAT(word, testing::HasSubstr("READY=1"));
  EXPECT_TRUE(ReputationPeer().ask(freshScript()));
}

}  // namespace
}  // namespace qm::test
