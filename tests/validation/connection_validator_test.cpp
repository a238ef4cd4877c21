#include "validation/QRMXPCConnectionValidator.hpp"

#include "support/testing.hpp"

namespace {

constexpr const char* kTeam =
    R"(anchor apple generic and certificate leaf[subject.OU] = "K7Q2M9X4T1" and info [CFBundleShortVersionString] )";

// Gives one status after the other, 0 for valid.
class ScriptedVerifier final : public QMRSignatureVerifier {
 public:
  explicit ScriptedVerifier(std::vector<OSStatus> statuses) : statuses_(std::move(statuses)) {}

  std::shared_ptr<QMRSignatureVerificationResult> verifyAuditToken(
      const AuditToken& token, const std::optional<std::string>& requirement) const override {
    tokens.push_back(token);
    requirements.push_back(requirement.value_or("nil"));
    auto result = std::make_shared<QMRSignatureVerificationResult>();
    result->setRequirements(requirement);
    const OSStatus status = statuses_.at(tokens.size() - 1);
    if (status == kSecSuccess) return result;
    result->setVerdict(QMRSignatureVerdict::invalid);
    result->setStatus(status);
    return result;
  }

  mutable std::vector<AuditToken> tokens;
  mutable std::vector<std::string> requirements;

 private:
  std::vector<OSStatus> statuses_;
};

AuditToken tokenOf(std::int32_t pid) {
  AuditToken token;
  token.words[5] = static_cast<std::uint32_t>(pid);
  return token;
}

struct Validation {
  explicit Validation(std::vector<OSStatus> statuses)
      : verifier(std::make_shared<ScriptedVerifier>(std::move(statuses))) {
    validator.setSignatureVerifier(verifier);
  }

  LogRecorder log;
  std::shared_ptr<ScriptedVerifier> verifier;
  QRMXPCConnectionValidator validator;
};

TEST(ConnectionValidator, TheRequirementsAreMadeFromTheDaemonsVersion) {
  using Case = std::tuple<std::optional<std::string>, std::string, std::string>;
  for (const auto& [version, atLeast, equal] :
       {Case{"5.12.345", "5.12.345", "5.12."}, Case{"5.12", "5.12", "(null)"},
        Case{"5.12.3.4", "5.12.3.4", "(null)"}, Case{std::nullopt, "(null)", "(null)"}}) {
    const auto requirements = QRMXPCConnectionValidator::requirementsForVersion(version);
    EXPECT_EQ(requirements[0], std::string(kTeam) + ">= \"" + atLeast + "\"");
    EXPECT_EQ(requirements[1], std::string(kTeam) + "= \"" + equal + "\"");
  }
}

// A test program has no Info.plist, so that its own version is none.
TEST(ConnectionValidator, AtTheFirstRequirementThatIsMetItStops) {
  Validation first({0});
  EXPECT_TRUE(first.validator.codesignValidForAuditToken(tokenOf(77), 77));
  Validation second({-67050, 0});
  EXPECT_TRUE(second.validator.codesignValidForAuditToken(tokenOf(77), 77));
  EXPECT_EQ(second.verifier->tokens, (std::vector{tokenOf(77), tokenOf(77)}));
  EXPECT_TRUE(second.log.has(LogLevel::debug,
                             std::string("pid 77 matched codesign requirement ") + kTeam + "= \"(null)\""));
}

TEST(ConnectionValidator, ARefusalNamesThePathIfThereStillIsOneAndTheLastResult) {
  Validation refusal({-67062, -67050, 100003, 100003});
  EXPECT_FALSE(refusal.validator.codesignValidForAuditToken(tokenOf(::getpid()), ::getpid()));
  const std::string own = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_TRUE(refusal.log.has(LogLevel::error, "Process " + std::to_string(::getpid()) + " (" + own +
                                                   ") did not match codesign requirements (" + kTeam +
                                                   "= \"(null)\") with status -67050 and error (null)"));
  EXPECT_FALSE(refusal.validator.codesignValidForConnection(nullptr));
  EXPECT_TRUE(refusal.log.has(LogLevel::error, "Error looking up path for pid 0"));
}

TEST(ConnectionValidator, ARefusedConnectionIsReportedToTheHandler) {
  Validation validation({-67050, -67050, 0});
  std::vector<bool> reported;
  validation.validator.setSignatureVerdictHandler(
      [&](const std::shared_ptr<QMRXPCConnection>&, bool isValid) { reported.push_back(isValid); });
  const auto peer = std::make_shared<QMRXPCConnection>();
  peer->setAuditToken(tokenOf(::getpid()));
  EXPECT_FALSE(validation.validator.codesignValidForConnection(peer));
  EXPECT_EQ(validation.verifier->tokens.at(0), peer->auditToken());
  EXPECT_TRUE(validation.validator.codesignValidForConnection(peer));
  EXPECT_EQ(reported, std::vector{false});
}

TEST(SignatureVerifier, NoRequirementIsMetAndANullConnectionIsNoProcess) {
  EXPECT_EQ(QMRSignatureVerifier().verifyAuditToken(AuditToken(), std::nullopt)->verdict(),
            QMRSignatureVerdict::valid);
  const auto result = QMRSignatureVerifier().verifyConnection(nullptr, "always");
  EXPECT_EQ(result->status(), 100003);
}

TEST(SignatureVerifier, OfSeveralBundleIdsTheFirstThatFitsEndsTheSearch) {
  const ScriptedVerifier verifier({-67050, 0, -67050, 0, -67050});
  const auto peer = std::make_shared<QMRXPCConnection>();
  EXPECT_TRUE(verifier.connection(peer, std::vector<std::string>{"a", "b", "c"}));
  EXPECT_THAT(verifier.requirements, testing::ElementsAre("identifier = \"a\"", "identifier = \"b\""));
  EXPECT_FALSE(verifier.connection(peer, std::vector<std::string>{}));
  EXPECT_FALSE(verifier.connection(peer, std::string("c")));
  EXPECT_TRUE(verifier.connection(peer, 0U));  // of its effective user
  EXPECT_FALSE(verifier.connection(peer, 501U));
}

}  // namespace
