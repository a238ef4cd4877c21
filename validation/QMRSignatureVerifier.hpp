// Checks whether the process behind an audit token or a connection is signed so that it satisfies a code
// requirement. The daemon's connection validator drives it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/audit_token.hpp"
#include "validation/QMRSignatureVerificationResult.hpp"
#include "validation/QMRXPCConnection.hpp"

// Without state; any thread. Every call looks afresh and may take as long as reading the peer's program does.
class QMRSignatureVerifier {
 public:
  virtual ~QMRSignatureVerifier() = default;

  // Every failure is in the result, nothing is logged. What is verified is the program file of the running
  // process, not its memory. Deliberately, without a requirement nothing is verified and the result says
  // "valid": callers never pass none. Never null. Virtual for the validator's tests; everything below comes
  // down to it.
  virtual std::shared_ptr<QMRSignatureVerificationResult> verifyAuditToken(
      const qm::AuditToken& token, const std::optional<std::string>& requirements) const;

  // The same for the connection's audit token, 32 zero bytes for a null connection.
  std::shared_ptr<QMRSignatureVerificationResult> verifyConnection(
      const std::shared_ptr<QMRXPCConnection>& connection,
      const std::optional<std::string>& requirements) const;

  // connection:isKnownBundleId: - the peer's bundle identifier is this one.
  bool connection(const std::shared_ptr<QMRXPCConnection>& connection, const std::string& bundleId) const;
  // connection:isOneOfKnownBundleIds: - tried in order up to the first that is; false for none.
  bool connection(const std::shared_ptr<QMRXPCConnection>& connection,
                  const std::vector<std::string>& bundleIds) const;
  // connection:belongsToUid: - the peer's effective user is this one; false for a null connection.
  bool connection(const std::shared_ptr<QMRXPCConnection>& connection, std::uint32_t uid) const;
};
