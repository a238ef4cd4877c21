// The Skyvault agent: answers the reputation daemon's questions about files and URLs from the local verdict
// store and examines the samples it asked for. Serves until it is killed; the store survives that at any
// moment.
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "companions/sample_rules.hpp"
#include "companions/skyvault_answers.hpp"
#include "companions/skyvault_service.hpp"
#include "foundation/log.hpp"
#include "platform/process_limits.hpp"
#include "platform/queue.hpp"
#include "platform/service_manager.hpp"
#include "platform/system_log.hpp"
#include "platform/system_root.hpp"
#include "platform/xpc.hpp"
#include "platform/linux/skyvault_wire.hpp"
#include "settings/QMRNamespace.hpp"
#include "validation/QMRSignatureVerifier.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

namespace {

qm::Log& log() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "skyvaultd");
  return log;
}

std::string installedPath(std::string_view productPath) {
  return qm::hostPath(QMRNamespace::namespacedWithPath(productPath));
}

std::shared_ptr<const qm::SampleRules> loadRules() {
  const std::string folder = installedPath("/Library/Quillmarsh/qxmac/rules");
  qm::ErrorPtr error;
  auto rules = qm::SampleRules::compileFolder(folder, nullptr, &error);
  if (rules == nullptr)
    QM_LOG_ERROR(log(), "Samples cannot be examined: %{public}@", error);
  else if (rules->count() == 0)
    QM_LOG_ERROR(log(), "There are no sample rules in %{public}@, no sample is asked for", folder);
  else
    QM_LOG(log(), "%zu sample rules from %{public}@", rules->count(), folder);
  return rules;
}

}  // namespace

int main() {
  qm::raiseDescriptorLimit();
  qm::installSystemLog();
  qm::SkyvaultAnswersOptions options;
  options.rules = loadRules();
  const auto answers =
      std::make_shared<qm::SkyvaultAnswers>(installedPath(qm::kVerdictStoreProductPath), std::move(options));
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
