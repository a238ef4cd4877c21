// Who is let in and who is not: clients that know the wire and come from a program that is signed, or is not.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <fstream>
#include <functional>
#include <iterator>

#include "road/installation.hpp"

namespace qm::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int kAnswered = 0;
constexpr int kTurnedAway = 3;

std::string contentOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

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
  fs::path clientOfAnotherAuthority() const {
    const fs::path authority = files_ / "authority";
    installation_.run("qmcodesign", {"authority", authority});
    installation_.run("qmcodesign", {"sign", "--key", authority / "development-signing.key", "--certificate",
                                     authority / "development-signing.pem", copyOfClient("foreign")});
    return files_ / "foreign";
  }
  // The last byte of the padding in the ELF identification: nobody looks at it.
  fs::path clientChangedAfterSigning() const {
    const fs::path program = copyOfClient("changed");
    std::fstream(program, std::ios::binary | std::ios::in | std::ios::out).seekp(15).put('\1');
    return program;
  }

  Process start(const fs::path& program, const std::string& mode, std::vector<std::string> more = {}) const {
    more.insert(more.begin(), {mode, installation_.daemonSocket, files_ / "file"});
    return {program, more, files_ / "output"};
  }
  int ask(const fs::path& program) const { return start(program, "ask").wait(); }
  // What the clients said since the last call.
  std::string said() const {
    const std::string text = contentOf(files_ / "output");
    fs::remove(files_ / "output");
    return text;
  }
  bool isLogged(const std::string& text) const {
    return eventually(
        [&] { return contentOf(installation_.log("qmreputationd")).find(text) != std::string::npos; },
        std::chrono::seconds(5));
  }
  // Starts it while the daemon is held up, and lets the daemon look at it when it has become that program.
  Process startUnseen(
      const fs::path& program, const std::string& mode, const fs::path& successor,
      const std::function<void()>& beforeTheDaemonLooks = [] {}) const {
    ::kill(daemon_.pid(), SIGSTOP);
    EXPECT_EQ(::waitpid(daemon_.pid(), nullptr, WUNTRACED), daemon_.pid());
    Process process = mode == "ask" ? start(program, mode) : start(program, mode, {successor});
    EXPECT_TRUE(eventually([&] {
      std::error_code gone;
      return fs::read_symlink("/proc/" + std::to_string(process.pid()) + "/exe", gone) == successor;
    }));
    beforeTheDaemonLooks();
    ::kill(daemon_.pid(), SIGCONT);
    return process;
  }
  void expectTurnedAway(Process process, const std::string& line, const std::string& reason = "") const {
    const std::string pid = std::to_string(process.pid());
    EXPECT_EQ(process.wait(), kTurnedAway);
    EXPECT_THAT(said(), Not(HasSubstr("reputationVerdict=")));
    EXPECT_TRUE(isLogged(line + pid)) << line << pid;
    EXPECT_TRUE(isLogged(reason)) << reason;
    EXPECT_TRUE(eventually([&] { return openDescriptors(daemon_.pid(), files_ / "file") == 0; }));
    EXPECT_EQ(ask(client_), kAnswered) << "the daemon serves others";
    (void)said();
  }

  static constexpr const char* kInvalid = "Code signature validation failed for pid ";
  static constexpr const char* kDisconnecting = "Disconnecting pid ";
  const fs::path client_ = installation_.program("wire_client");
};

TEST_F(Admission, AClientWrittenFromTheWiresDescriptionIsServed) {
  installation_.run("qmverdicts", {"add", file("file", "bad"), "--verdict", "malicious", "--name", "Test.Bad",
                                   "--prevalence", "200"});
  EXPECT_EQ(ask(client_), kAnswered);
  EXPECT_THAT(said(), testing::AllOf(HasSubstr("reputationVerdict=0\n"), HasSubstr("prevalence=200\n"),
                                     HasSubstr("infectionName=Test.Bad\n"), Not(HasSubstr("error="))));
}

TEST_F(Admission, AProgramWhoseSignatureDoesNotHoldIsRefused) {
  file("file", "whatever it is");
  const std::pair<fs::path, const char*> cases[] = {
      {unsignedClient(), "status -67062"},
      {clientOfAnotherAuthority(), "status -66996"},
      {clientChangedAfterSigning(), "status -67061"},
      {installation_.program("wire_client_old"), "status -67050"},
  };
  for (const auto& [program, status] : cases) {
    SCOPED_TRACE(program.native());
    expectTurnedAway(start(program, "ask"), kInvalid, status);
  }
}

TEST_F(Admission, AProgramThatWasReplacedWhileItRunsIsRefused) {
  file("file", "whatever it is");
  const fs::path program = copyOfClient("program");
  const fs::path successor = copyOfClient("successor");
  expectTurnedAway(startUnseen(program, "ask", program, [&] { fs::rename(successor, program); }), kInvalid,
                   "status 100002");
  EXPECT_EQ(ask(program), kAnswered) << said();
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
    expectTurnedAway(start(client_, "inherit", {heir}), kDisconnecting, ": message from another process");
  }
}

}  // namespace
}  // namespace qm::test
