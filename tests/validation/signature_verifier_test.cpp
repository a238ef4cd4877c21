#include "validation/QMRSignatureVerifier.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

// Knows one requirement that is met, and remembers what it was asked.
class ScriptedVerifier final : public QMRSignatureVerifier {
 public:
  std::shared_ptr<QMRSignatureVerificationResult> verifyAuditToken(
      const qm::AuditToken&, const std::optional<std::string>& requirements) const override {
    asked.push_back(requirements.value_or("nil"));
    auto result = std::make_shared<QMRSignatureVerificationResult>();
    if (requirements != "identifier = \"b\"") result->setVerdict(QMRSignatureVerdict::invalid);
    return result;
  }

  mutable std::vector<std::string> asked;
};

TEST(SignatureVerifier, NoRequirementIsMetAndANullConnectionIsNoProcess) {
  EXPECT_EQ(QMRSignatureVerifier().verifyAuditToken(qm::AuditToken(), std::nullopt)->verdict(),
            QMRSignatureVerdict::valid);
  const auto result = QMRSignatureVerifier().verifyConnection(nullptr, "always");
  EXPECT_EQ(result->status(), 100003);
}

TEST(SignatureVerifier, OfSeveralBundleIdsTheFirstThatFitsEndsTheSearch) {
  const ScriptedVerifier verifier;
  const auto peer = std::make_shared<QMRXPCConnection>();
  EXPECT_TRUE(verifier.connection(peer, std::vector<std::string>{"a", "b", "c"}));
  EXPECT_THAT(verifier.asked, testing::ElementsAre("identifier = \"a\"", "identifier = \"b\""));
  EXPECT_FALSE(verifier.connection(peer, std::vector<std::string>{}));
  EXPECT_FALSE(verifier.connection(peer, std::string("c")));
  EXPECT_TRUE(verifier.connection(peer, 0U));  // of its effective user
  EXPECT_FALSE(verifier.connection(peer, 501U));
}

}  // namespace
