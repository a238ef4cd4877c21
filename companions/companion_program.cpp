#include "companions/companion_program.hpp"

#include <memory>

#include "platform/file_io.hpp"
#include "platform/process_limits.hpp"
#include "platform/standard_descriptors.hpp"
#include "platform/system_log.hpp"
#include "platform/system_root.hpp"
#include "platform/user.hpp"
#include "settings/QMRNamespace.hpp"
#include "validation/QMRSignatureVerifier.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

namespace qm {

void beginCompanion() {
  occupyClosedStandardDescriptors();
  raiseDescriptorLimit();
  boundHeap();
  installSystemLog();
}

std::string installedPath(std::string_view productPath) {
  return hostPath(QMRNamespace::namespacedWithPath(productPath));
}

std::uint32_t ownerOfInstallation() {
  FileStatus status;
  const std::string folder = installedPath("/Library/Quillmarsh/qxmac");
  return statPath(folder.c_str(), status) ? status.owner : currentUserID();
}

Block<bool(const AuditToken& peer)> admissionBySignature() {
  const auto validator = std::make_shared<QRMXPCConnectionValidator>();
  validator->setSignatureVerifier(std::make_shared<QMRSignatureVerifier>());
  return [validator](const AuditToken& peer) {
    return validator->codesignValidForAuditToken(peer, peer.processID());
  };
}

}  // namespace qm
