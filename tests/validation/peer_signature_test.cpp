// Real processes of real programs, checked from a staged installation.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>

#include "platform/code_signing.hpp"
#include "platform/linux/process_identity.hpp"
#include "support/development_authority.hpp"

namespace {

using qm::test::ChildProcess;
using qm::test::CommandResult;
using qm::test::DevelopmentAuthority;
using qm::test::runCommand;
using qm::test::StagedInstallation;

// Verdict, status and error.
using Verdict = std::tuple<int, int, std::string>;

const Verdict kValid{1, 0, "nil"};

Verdict invalid(int status) {
  return {2, status, "Error Domain=NSOSStatusErrorDomain Code=" + std::to_string(status) + " \"(null)\""};
}
// What the search for the program finds out has a status and no error.
Verdict notFound(int status) {
  return {2, status, "nil"};
}

class PeerSignature : public testing::Test {
 protected:
  static void SetUpTestSuite() { authority_ = new DevelopmentAuthority; }
  static void TearDownTestSuite() { delete authority_; }

  PeerSignature() { installation_.trust(*authority_); }

  std::string stageSigned(const std::string& name) const {
    const std::string path = installation_.stage(QM_TEST_WAITING_PROGRAM, name);
    authority_->sign(path);
    return path;
  }
  CommandResult check(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), checker_);
    return runCommand(arguments);
  }
  Verdict verify(pid_t pid, const std::string& requirement, const std::string& version = "now") const {
    const CommandResult result = check({std::to_string(pid), version, requirement});
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    std::istringstream lines(result.output);
    Verdict verdict;
    lines >> std::get<0>(verdict) >> std::get<1>(verdict) >> std::ws;
    std::getline(lines, std::get<2>(verdict));
    return verdict;
  }
  // Of a program that is started for this.
  Verdict verifyProgram(const std::string& path, const std::string& requirement) const {
    ChildProcess peer({path});
    EXPECT_EQ(peer.readLine(), "ready");
    return verify(peer.pid(), requirement);
  }

  static DevelopmentAuthority* authority_;
  StagedInstallation installation_;
  std::string checker_ = installation_.stage(QM_TEST_VERIFY_PROCESS, "verify_process");
};

DevelopmentAuthority* PeerSignature::authority_ = nullptr;

TEST_F(PeerSignature, AProgramIsWhatItsSignatureSays) {
  const std::string program = stageSigned("peer");
  EXPECT_EQ(verifyProgram(program, "identifier = \"com.quillmarsh.test.waiting\""), kValid);
  EXPECT_EQ(verifyProgram(program, "anchor apple generic and"), notFound(qm::kSecCSReqInvalid));
  EXPECT_EQ(verifyProgram(program, "!notarized"), notFound(qm::kSecCSReqUnsupported));
}

TEST_F(PeerSignature, AnotherTeamIsRefusedAlsoUnderATrustedAnchor) {
  const DevelopmentAuthority otherTeam("XXXXXXXXXX");
  installation_.trust(otherTeam);
  const std::string program = installation_.stage(QM_TEST_WAITING_PROGRAM, "peer");
  otherTeam.sign(program);
  EXPECT_EQ(verifyProgram(program, R"(certificate leaf[subject.OU] = "K7Q2M9X4T1")"),
            invalid(qm::kSecCSReqFailed));
  EXPECT_EQ(verifyProgram(program, "anchor apple generic"), kValid);
}

TEST_F(PeerSignature, EveryInstallationHasItsOwnAnchors) {
  StagedInstallation sidecar("Quillmarsh-sidecar");
  checker_ = sidecar.stage(QM_TEST_VERIFY_PROCESS, "verify_process");
  const std::string program = stageSigned("peer");
  EXPECT_EQ(verifyProgram(program, "always"), invalid(qm::kSecCSSignatureUntrusted));
  sidecar.trust(*authority_);
  EXPECT_EQ(verifyProgram(program, "always"), kValid);
}

TEST_F(PeerSignature, AProcessThatExitedOrIsNotTheTokensIsRefused) {
  ChildProcess peer({stageSigned("peer")});
  peer.readLine();
  const std::uint32_t version = qm::auditTokenOfProcess(peer.pid())->words[7];
  EXPECT_EQ(verify(peer.pid(), "always", std::to_string(version)), kValid);
  EXPECT_EQ(verify(peer.pid(), "always", std::to_string(version - 1)), notFound(qm::kSecCSNoSuchCode));
  peer.closeInput();
  peer.waitUntilEnded();
  EXPECT_EQ(verify(peer.pid(), "always", std::to_string(version)), notFound(100003));
}

TEST_F(PeerSignature, AValidatorWithoutDescriptorsEndsItsProcess) {
  // It opens pipes to look at objects, and takes them for broken when it cannot.
  if (::dlsym(RTLD_DEFAULT, "__asan_init") != nullptr)
    GTEST_SKIP() << "the sanitizer needs descriptors itself";
  ChildProcess peer({stageSigned("peer")});
  peer.readLine();
  const CommandResult result = check({std::to_string(peer.pid()), "now"});
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_TRUE(result.output.starts_with("yes\n")) << result.output;
  EXPECT_NE(result.output.find("File descriptor leak detected; aborting process"), std::string::npos);
}

}  // namespace
