// The Skyvault agent: answers the reputation daemon's questions about files and URLs from the local verdict
// store and examines the samples it asked for. Serves until it is killed; the store survives that at any
// moment.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

#include "companions/companion_program.hpp"
#include "companions/live_sample_rules.hpp"
#include "companions/skyvault_answers.hpp"
#include "companions/skyvault_service.hpp"
#include "platform/process_limits.hpp"
#include "platform/queue.hpp"
#include "platform/service_manager.hpp"
#include "platform/system_log.hpp"
#include "platform/xpc.hpp"
#include "platform/linux/skyvault_wire.hpp"
#include "settings/QMRNamespace.hpp"
#include "validation/QMRSignatureVerifier.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

int main() {
  qm::raiseDescriptorLimit();
  qm::boundHeap();
  qm::installSystemLog();
  const auto answers = std::make_shared<qm::SkyvaultAnswers>(qm::installedPath(qm::kVerdictStoreProductPath),
                                                             qm::SkyvaultAnswersOptions());
  const qm::LiveSampleRules rules(
      qm::installedPath(qm::kSampleRulesProductPath),
      [answers](std::shared_ptr<const qm::SampleRules> compiled, std::int64_t changed) {
        answers->setRules(std::move(compiled), changed);
      });
  answers->prepare();

  const auto validator = std::make_shared<QRMXPCConnectionValidator>();
  validator->setSignatureVerifier(std::make_shared<QMRSignatureVerifier>());
  const auto service = qm::SkyvaultService::create(answers,
                                                   [validator](const qm::XPCConnection& peer) {
                                                     return validator->codesignValidForAuditToken(
                                                         peer.auditToken(), peer.processID());
                                                   },
                                                   {});
  const qm::XPCConnection listener =
      qm::XPCConnection::createListener(QMRNamespace::namespacedWithId(qm::skyvault::kServiceName));
  // Without its name the agent is of no use; whoever started it may try again.
  service->serve(listener, [](const qm::XPCObject&) { std::_Exit(EXIT_FAILURE); });
  qm::notifyServiceManagerReady();
  qm::runMainLoop();
}
