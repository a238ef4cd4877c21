// The settings daemon: serves the settings that a person keeps in config/settings.toml, says when they
// change, and pushes remote actions. Serves until it is killed; its files survive that at any moment.
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "companions/companion_program.hpp"
#include "companions/settings_service.hpp"
#include "companions/settings_store.hpp"
#include "foundation/log.hpp"
#include "platform/notify.hpp"
#include "platform/queue.hpp"
#include "platform/remote_connection.hpp"
#include "platform/service_manager.hpp"
#include "settings/QMRNamespace.hpp"
#include "settings/qmsettingsdProtocol.hpp"

namespace {

qm::Log& log() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "qmsettingsd");
  return log;
}

void post(std::string_view name) {
  const qm::NotifyStatus status = qm::notifyPost(name);
  if (status != qm::NotifyStatus::ok)
    QM_LOG_ERROR(log(), "The notification %{public}@ could not be posted: status %u", std::string(name),
                 static_cast<unsigned>(status));
}

void tell(const qm::SettingsStore::Change& change) {
  if (change.settings) post(kSettingsUpdatedNotification);
  if (change.allowList) post(kWhitelistUpdatedNotification);
}

}  // namespace

int main() {
  qm::beginCompanion();
  const auto store = std::make_shared<qm::SettingsStore>(
      qm::installedPath(qm::kSettingsProductPath), qm::installedPath(qm::kSettingsStateProductPath),
      [](const qm::SettingsStore::Change& change) { tell(change); });
  qm::SettingsService::Options options;
  options.peers.admission = [isAdmitted = qm::admissionBySignature()](const qm::RemoteConnection& peer) {
    return isAdmitted(peer.auditToken());
  };
  options.owner = qm::ownerOfInstallation();
  const auto service = qm::SettingsService::create(store, std::move(options));
  // Without its name the daemon is of no use; whoever started it may try again.
  const auto listener = qm::RemoteListener::createWithMachServiceName(
      QMRNamespace::namespacedWithId(kSettingsServiceName), [] { std::_Exit(EXIT_FAILURE); });
  service->serve(listener);
  store->follow();
  // Whoever waited for the daemon refreshes.
  tell({.settings = true, .allowList = true});
  qm::notifyServiceManagerReady();
  qm::runMainLoop();
}
