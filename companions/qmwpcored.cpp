// The Wisp core daemon: answers the Wisp backend's questions about files and URLs from the local verdict
// store and scans files with the sample rules. Serves until it is killed; the store survives that at any
// moment.
#include <cstdlib>
#include <utility>

#include "companions/companion_program.hpp"
#include "companions/installed_answers.hpp"
#include "companions/wisp_answers.hpp"
#include "companions/wisp_service.hpp"
#include "platform/queue.hpp"
#include "platform/remote_connection.hpp"
#include "platform/service_manager.hpp"
#include "settings/QMRNamespace.hpp"
#include "settings/service_identifiers.hpp"

int main() {
  qm::beginCompanion();
  const qm::InstalledAnswers<qm::WispAnswers, qm::WispAnswersOptions> answers;
  qm::WispService::Options serving;
  serving.peers.admission = [isAdmitted = qm::admissionBySignature()](const qm::RemoteConnection& peer) {
    return isAdmitted(peer.auditToken());
  };
  serving.owner = qm::ownerOfInstallation();
  const auto service = qm::WispService::create(answers.get(), std::move(serving));
  // Without its name the daemon is of no use; whoever started it may try again.
  const auto listener = qm::RemoteListener::createWithMachServiceName(
      QMRNamespace::namespacedWithId(QMRServiceIdentifierWpcore), [] { std::_Exit(EXIT_FAILURE); });
  service->serve(listener);
  qm::notifyServiceManagerReady();
  qm::runMainLoop();
}
