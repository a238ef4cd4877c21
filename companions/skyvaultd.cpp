// The Skyvault agent: answers the reputation daemon's questions about files and URLs from the local verdict
// store and examines the samples it asked for. Serves until it is killed; the store survives that at any
// moment.
#include <cstdlib>

#include "companions/companion_program.hpp"
#include "companions/installed_answers.hpp"
#include "companions/skyvault_answers.hpp"
#include "companions/skyvault_service.hpp"
#include "platform/linux/skyvault_wire.hpp"
#include "platform/queue.hpp"
#include "platform/service_manager.hpp"
#include "platform/xpc.hpp"
#include "settings/QMRNamespace.hpp"

int main() {
  qm::beginCompanion();
  const qm::InstalledAnswers<qm::SkyvaultAnswers, qm::SkyvaultAnswersOptions> answers;
  const auto admission = [isAdmitted = qm::admissionBySignature()](const qm::XPCConnection& peer) {
    return isAdmitted(peer.auditToken());
  };
  const auto service = qm::SkyvaultService::create(answers.get(), admission, {});
  const qm::XPCConnection listener =
      qm::XPCConnection::createListener(QMRNamespace::namespacedWithId(qm::skyvault::kServiceName));
  // Without its name the agent is of no use; whoever started it may try again.
  service->serve(listener, [](const qm::XPCObject&) { std::_Exit(EXIT_FAILURE); });
  qm::notifyServiceManagerReady();
  qm::runMainLoop();
}
