// Real processes of real programs, checked by this program from the installation it lies in (see
// CMakeLists.txt).
#include <dlfcn.h>
#include <sys/resource.h>

#include "platform/code_signing.hpp"
#include "platform/linux/process_identity.hpp"
#include "platform/linux/system_log_sinks.hpp"
#include "platform/linux/system_root.hpp"
#include "support/development_authority.hpp"
#include "validation/QMRSignatureVerifier.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

namespace {

// This process has the file open.
bool hasOpen(const std::string& path) {
  std::error_code error;  // of a descriptor that was closed meanwhile
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    if (std::filesystem::read_symlink(entry, error) == path) return true;
  return false;
}

constexpr const char* kOwnTeam = R"(certificate leaf[subject.OU] = "K7Q2M9X4T1")";

// What a check has to find: of the program itself an error beside the status, of the search for it none.
struct Finding {
  OSStatus status = kSecSuccess;
  bool hasError = false;
  bool operator==(const Finding&) const = default;
};

class PeerSignature : public testing::Test {
 protected:
  static void SetUpTestSuite() { authority_ = std::make_unique<DevelopmentAuthority>(); }
  static void TearDownTestSuite() { authority_.reset(); }

  PeerSignature() {
    std::filesystem::remove_all(product_ / "trust");
    std::filesystem::create_directories(product_ / "trust");
    trust(*authority_);
  }

  // The authority's programs are admitted from now on.
  void trust(const DevelopmentAuthority& authority) {
    std::filesystem::copy_file(authority.root(), product_ / "trust" / (std::to_string(anchors_++) + ".pem"));
  }
  std::string signedBy(const DevelopmentAuthority& authority) const {
    const std::string program = folder_.write("peer", contentOf(QM_TEST_WAITING_PROGRAM));
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    authority.sign(program);
    return program;
  }
  static AuditToken tokenOf(const ChildProcess& peer) {
    return auditTokenOfProcess(peer.pid()).value_or(AuditToken());
  }
  static Finding verify(const AuditToken& token, const std::string& requirement) {
    const auto result = QMRSignatureVerifier().verifyAuditToken(token, requirement);
    EXPECT_EQ(result->verdict() == QMRSignatureVerdict::valid, result->status() == kSecSuccess);
    if (result->error() != nullptr) {
      EXPECT_EQ(*result->error(), Error(kOSStatusErrorDomain, result->status()));
    }
    return {result->status(), result->error() != nullptr};
  }
  // Of the program, which is started for this.
  static Finding verifyProgram(const std::string& program, const std::string& requirement) {
    ChildProcess peer({program});
    EXPECT_EQ(peer.readLine(), "ready");
    return verify(tokenOf(peer), requirement);
  }

  static inline std::unique_ptr<DevelopmentAuthority> authority_;
  const std::filesystem::path product_ = std::filesystem::path(ownProgramPath()).parent_path().parent_path();
  const ScratchFolder folder_;
  int anchors_ = 0;
};

TEST_F(PeerSignature, AProgramIsWhatItsSignatureSays) {
  const std::string program = signedBy(*authority_);
  EXPECT_EQ(verifyProgram(program, "identifier = \"com.quillmarsh.test.waiting\""), Finding());
  EXPECT_EQ(verifyProgram(program, "anchor apple generic and"), Finding{kSecCSReqInvalid});
  EXPECT_EQ(verifyProgram(program, "!notarized"), Finding{kSecCSReqUnsupported});
}

TEST_F(PeerSignature, AnotherTeamIsRefusedAlsoUnderATrustedAnchorOfThisInstallation) {
  const DevelopmentAuthority otherTeam("XXXXXXXXXX");
  const std::string program = signedBy(otherTeam);
  EXPECT_EQ(verifyProgram(program, "always"), (Finding{kSecCSSignatureUntrusted, true}));
  // Another installation below the same root has anchors of its own.
  const auto neighbour = product_.parent_path().parent_path() / "Quillmarsh/qxmac/trust";
  std::filesystem::create_directories(neighbour);
  std::filesystem::copy_file(otherTeam.root(), neighbour / "other.pem",
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(verifyProgram(program, "always"), (Finding{kSecCSSignatureUntrusted, true}));
  trust(otherTeam);
  EXPECT_EQ(verifyProgram(program, kOwnTeam), (Finding{kSecCSReqFailed, true}));
  EXPECT_EQ(verifyProgram(program, "anchor apple generic"), Finding());
}

TEST_F(PeerSignature, AProcessThatExitedOrIsNotTheTokensIsRefused) {
  ChildProcess peer({signedBy(*authority_)});
  peer.readLine();
  const AuditToken token = tokenOf(peer);
  AuditToken predecessor = token;
  --predecessor.words[7];
  EXPECT_EQ(verify(token, "always"), Finding());
  EXPECT_EQ(verify(predecessor, "always"), Finding{kSecCSNoSuchCode});
  peer.closeInput();
  peer.waitUntilEnded();
  EXPECT_EQ(verify(token, "always"), Finding{100003});
}

TEST_F(PeerSignature, AValidatorWithoutDescriptorsEndsItsProcess) {
  // It opens pipes to look at objects, and takes them for broken when it cannot.
  if (::dlsym(RTLD_DEFAULT, "__asan_init") != nullptr)
    GTEST_SKIP() << "the sanitizer needs descriptors itself";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string program = signedBy(*authority_);
  ChildProcess peer({program});
  peer.readLine();
  QRMXPCConnectionValidator validator;
  validator.setSignatureVerifier(std::make_shared<QMRSignatureVerifier>());
  ASSERT_TRUE(validator.codesignValidForAuditToken(tokenOf(peer), peer.pid()));
  ASSERT_TRUE(eventually([&] { return !hasOpen(program); }));
  const auto validateWithoutDescriptors = [&] {
    const rlimit few{.rlim_cur = 64, .rlim_max = 64};
    ::setrlimit(RLIMIT_NOFILE, &few);
    const AuditToken token = tokenOf(peer);
    while (::open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0) {
    }
    setLogSink(std::make_shared<StreamLogSink>(STDERR_FILENO));
    validator.codesignValidForAuditToken(token, peer.pid());
  };
  EXPECT_EXIT(validateWithoutDescriptors(), testing::KilledBySignal(SIGABRT),
              "File descriptor leak detected; aborting process");
}

}  // namespace
