#include "validation/QMRSignatureVerifier.hpp"

#include <algorithm>

#include "platform/code_signing.hpp"

namespace {

// The first call that fails decides the status; only the last one has an error.
qm::OSStatus check(const qm::AuditToken& token, const std::string& requirements, qm::ErrorPtr& error) {
  qm::SecCodePtr code;
  if (const qm::OSStatus status = qm::copyGuestWithAuditToken(token, code); status != qm::kSecSuccess)
    return status;
  qm::SecRequirementPtr requirement;
  if (const qm::OSStatus status = qm::createRequirementWithString(requirements, requirement);
      status != qm::kSecSuccess)
    return status;
  return qm::checkValidityWithErrors(code, requirement, &error);
}

}  // namespace

std::shared_ptr<QMRSignatureVerificationResult> QMRSignatureVerifier::verifyAuditToken(
    const qm::AuditToken& token, const std::optional<std::string>& requirements) const {
  auto result = std::make_shared<QMRSignatureVerificationResult>();
  if (!requirements) return result;
  result->setRequirements(requirements);
  qm::ErrorPtr error;
  const qm::OSStatus status = check(token, *requirements, error);
  if (status == qm::kSecSuccess) return result;
  result->setVerdict(QMRSignatureVerdict::invalid);
  result->setStatus(status);
  result->setError(std::move(error));
  return result;
}

std::shared_ptr<QMRSignatureVerificationResult> QMRSignatureVerifier::verifyConnection(
    const std::shared_ptr<QMRXPCConnection>& connection,
    const std::optional<std::string>& requirements) const {
  return verifyAuditToken(connection == nullptr ? qm::AuditToken() : connection->auditToken(), requirements);
}

bool QMRSignatureVerifier::connection(const std::shared_ptr<QMRXPCConnection>& connection,
                                      const std::string& bundleId) const {
  const std::string requirements = "identifier = \"" + bundleId + "\"";
  return verifyConnection(connection, requirements)->verdict() == QMRSignatureVerdict::valid;
}

bool QMRSignatureVerifier::connection(const std::shared_ptr<QMRXPCConnection>& connection,
                                      const std::vector<std::string>& bundleIds) const {
  return std::any_of(bundleIds.begin(), bundleIds.end(),
                     [&](const std::string& bundleId) { return this->connection(connection, bundleId); });
}

bool QMRSignatureVerifier::connection(const std::shared_ptr<QMRXPCConnection>& connection,
                                      std::uint32_t uid) const {
  return connection != nullptr && connection->effectiveUserIdentifier() == uid;
}
