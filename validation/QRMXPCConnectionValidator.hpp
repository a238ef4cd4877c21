// Decides whether a peer process may talk to the daemon: it must be signed by the product's own team, with a
// version that fits the daemon's own. The daemon asks it for every new peer.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "foundation/block.hpp"
#include "foundation/property.hpp"
#include "platform/audit_token.hpp"
#include "validation/QMRSignatureVerifier.hpp"
#include "validation/QMRXPCConnection.hpp"

// Any thread, also several at once: a check changes nothing here. Nothing is remembered of a peer.
class QRMXPCConnectionValidator {
 public:
  using SignatureVerdictHandler =
      qm::Block<void(const std::shared_ptr<QMRXPCConnection>& connection, bool isValid)>;

  // The requirements a peer of a daemon with that version may meet, in the order in which they are tried: at
  // least the version; or, kept as it is, equal to "MAJOR.MINOR." with its trailing point.
  static std::array<std::string, 2> requirementsForVersion(const std::optional<std::string>& version);

  // Must be set before use.
  std::shared_ptr<QMRSignatureVerifier> signatureVerifier() const { return signatureVerifier_.get(); }
  void setSignatureVerifier(std::shared_ptr<QMRSignatureVerifier> verifier) {
    signatureVerifier_.set(std::move(verifier));
  }

  // Called by codesignValidForConnection with the connection and false, on its thread, when a connection
  // fails.
  SignatureVerdictHandler signatureVerdictHandler() const { return signatureVerdictHandler_.get(); }
  void setSignatureVerdictHandler(SignatureVerdictHandler handler) {
    signatureVerdictHandler_.set(std::move(handler));
  }

  // True when any requirement is met. A status that says that this process has no descriptors left ends it.
  bool codesignValidForAuditToken(const qm::AuditToken& token, std::int32_t pid) const;
  // The same for the connection's audit token (32 zero bytes for a null one) and process.
  bool codesignValidForConnection(const std::shared_ptr<QMRXPCConnection>& connection) const;

  // The path of the process's program.
  std::optional<std::string> pathForPid(std::int32_t pid) const;

  // Deliberately ends the process: a daemon whose descriptors are exhausted would reject every peer from then
  // on.
  [[noreturn]] void abortDueToFileDescriptorLeak() const;

 private:
  qm::Property<std::shared_ptr<QMRSignatureVerifier>> signatureVerifier_;
  qm::Property<SignatureVerdictHandler> signatureVerdictHandler_;
};
