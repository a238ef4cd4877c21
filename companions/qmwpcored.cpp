// The Wisp core daemon: answers the Wisp backend's questions about files and URLs from the local verdict
// store and scans files with the sample rules. Serves until it is killed; the store survives that at any
// moment.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

#include "companions/companion_program.hpp"
#include "companions/live_sample_rules.hpp"
#include "companions/wisp_answers.hpp"
#include "companions/wisp_service.hpp"
#include "platform/process_limits.hpp"
#include "platform/queue.hpp"
#include "platform/remote_connection.hpp"
#include "platform/service_manager.hpp"
#include "platform/system_log.hpp"
#include "settings/QMRNamespace.hpp"
#include "settings/service_identifiers.hpp"
#include "validation/QMRSignatureVerifier.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

int main() {
  qm::raiseDescriptorLimit();
  qm::boundHeap();
  qm::installSystemLog();
  const auto answers = std::make_shared<qm::WispAnswers>(qm::installedPath(qm::kVerdictStoreProductPath),
                                                         qm::WispAnswersOptions());
  const qm::LiveSampleRules rules(
      qm::installedPath(qm::kSampleRulesProductPath),
      [answers](std::shared_ptr<const qm::SampleRules> compiled, std::int64_t changed) {
        answers->setRules(std::move(compiled), changed);
      });
  answers->prepare();

  const auto validator = std::make_shared<QRMXPCConnectionValidator>();
  validator->setSignatureVerifier(std::make_shared<QMRSignatureVerifier>());
  qm::WispService::Options serving;
  serving.peers.admission = [validator](const qm::RemoteConnection& peer) {
    return validator->codesignValidForAuditToken(peer.auditToken(), peer.processIdentifier());
  };
  serving.owner = qm::ownerOfInstallation();
  const auto service = qm::WispService::create(answers, std::move(serving));
  // Without its name the daemon is of no use; whoever started it may try again.
  const auto listener = qm::RemoteListener::createWithMachServiceName(
      QMRNamespace::namespacedWithId(QMRServiceIdentifierWpcore), [] { std::_Exit(EXIT_FAILURE); });
  service->serve(listener);
  qm::notifyServiceManagerReady();
  qm::runMainLoop();
}
