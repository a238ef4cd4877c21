// Who is let in and who is not: clients that know the wire and come from a program that is signed, or is not.

#include "road/installation.hpp"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int kAnswered = 0;
constexpr int kTurnedAway = 3;

class Admission : public RoadTest {
 protected:
  // The client as a program of its own that may be changed.
  fs::path copyOfClient(const std::string& name) const {
    fs::copy_file(client_, files_ / name);
    return files_ / name;
  }
  fs::path unsignedClient() const {
    const fs::path program = files_ / "unsigned";
    installation_.run("qmcodesign",
                      {"extract", "--signature", files_ / "signature", "--content", program, client_});
    fs::permissions(program, fs::perms::owner_all);
    return program;
  }
  std::unique_ptr<ChildProcess> start(const fs::path& program, const std::string& mode,
                                      const fs::path& successor = {}) const {
    std::vector<std::string> command{program, mode, installation_.daemonSocket, files_ / "file"};
    if (!successor.empty()) command.push_back(successor);
    return std::make_unique<ChildProcess>(command);
  }
  int ask(const fs::path& program) const { return start(program, "ask")->wait(); }
  bool isLogged(const std::string& text) const {
    return eventually(
        [&] { return contentOf(installation_.log("qmreputationd")).find(text) != std::string::npos; });
  }
  // Starts it while the daemon is held up, and lets the daemon look at it when it has become that program.
  std::unique_ptr<ChildProcess> startUnseen(
      const fs::path& program, const std::string& mode, const fs::path& successor,
      const std::function<void()>& beforeTheDaemonLooks = [] {}) const {
    ::kill(daemon_->pid(), SIGSTOP);
    EXPECT_EQ(::waitpid(daemon_->pid(), nullptr, WUNTRACED), daemon_->pid());
    auto process = start(program, mode, mode == "ask" ? fs::path() : successor);
    EXPECT_TRUE(eventually([&] {
      std::error_code gone;
      return fs::read_symlink("/proc/" + std::to_string(process->pid()) + "/exe", gone) == successor;
    }));
    beforeTheDaemonLooks();
    ::kill(daemon_->pid(), SIGCONT);
    return process;
  }
  void expectTurnedAway(const std::unique_ptr<ChildProcess>& process, const std::string& line,
                        const std::string& reason = "") const {
    EXPECT_EQ(process->wait(), kTurnedAway);
    EXPECT_THAT(process->readToEnd(), Not(HasSubstr("reputationVerdict=")));
    EXPECT_TRUE(isLogged(line + std::to_string(process->pid()))) << line << process->pid();
    EXPECT_TRUE(isLogged(reason)) << reason;
    EXPECT_TRUE(eventually([&] { return openDescriptors(daemon_->pid(), files_ / "file") == 0; }));
    EXPECT_EQ(ask(client_), kAnswered) << "the daemon serves others";
  }

  static constexpr const char* kInvalid = "Code signature validation failed for pid ";
  static constexpr const char* kDisconnecting = "Disconnecting pid ";
  const fs::path client_ = installation_.program("wire_client");
};

TEST_F(Admission, AClientWrittenFromTheWiresDescriptionIsServed) {
  installation_.run("qmverdicts", {"add", file("file", "bad"), "--verdict", "malicious", "--name", "Test.Bad",
                                   "--prevalence", "200"});
  const auto client = start(client_, "ask");
  EXPECT_EQ(client->wait(), kAnswered);
  EXPECT_THAT(client->readToEnd(),
              testing::AllOf(HasSubstr("reputationVerdict=0\n"), HasSubstr("prevalence=200\n"),
                             HasSubstr("infectionName=Test.Bad\n"), Not(HasSubstr("error="))));
}

TEST_F(Admission, AProgramWhoseSignatureDoesNotHoldIsRefused) {
  file("file", "whatever it is");
  const std::pair<fs::path, const char*> cases[] = {
      {unsignedClient(), "status -67062"},
      {installation_.program("wire_client_old"), "status -67050"},
  };
  for (const auto& [program, status] : cases) {
    SCOPED_TRACE(program.native());
    expectTurnedAway(start(program, "ask"), kInvalid, status);
    EXPECT_EQ(ChildProcess({program, "ask", installation_.agentSocket, files_ / "file"}).wait(), kTurnedAway)
        << "by the agent too";
  }
  EXPECT_EQ(ChildProcess({client_, "ask", installation_.agentSocket, files_ / "file"}).wait(), kAnswered);
}

TEST_F(Admission, AProgramThatWasReplacedWhileItRunsIsRefused) {
  file("file", "whatever it is");
  const fs::path program = copyOfClient("program");
  const fs::path successor = copyOfClient("successor");
  expectTurnedAway(startUnseen(program, "ask", program, [&] { fs::rename(successor, program); }), kInvalid,
                   "status 100002");
  EXPECT_EQ(ask(program), kAnswered);
}

// When the daemon looks, the process runs a signed program; its bytes are of the time before.
TEST_F(Admission, WhatWasWrittenBeforeTheCheckIsWorthNothing) {
  file("file", "whatever it is");
  expectTurnedAway(startUnseen(unsignedClient(), "become", client_), kDisconnecting);
}

TEST_F(Admission, AnotherProcessOnAnAdmittedConnectionEndsIt) {
  file("file", "whatever it is");
  for (const fs::path& heir : {unsignedClient(), client_}) {
    SCOPED_TRACE(heir.native());
    expectTurnedAway(start(client_, "inherit", heir), kDisconnecting, ": message from another process");
  }
}

}  // namespace
