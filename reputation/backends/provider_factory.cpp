// The provider factory of QMRReputationLookup: here, because it makes the backends.
#include <utility>

#include "reputation/QMRReputationLookup.hpp"
#include "reputation/backends/QMRBasaltReputationLookup.hpp"
#include "reputation/backends/QMRWispReputationLookup.hpp"
#include "settings/QMRSettingsClient.hpp"

std::shared_ptr<QMRReputationLookup> QMRReputationLookup::reputationProviderWithBasaltEnabled(
    bool basaltEnabled, std::shared_ptr<QMRSettingsClient> settingsClient) {
  if (basaltEnabled) return basaltReputationProvider();
  return wispReputationProviderWithSettingsClient(std::move(settingsClient));
}

std::shared_ptr<QMRReputationLookup> QMRReputationLookup::basaltReputationProvider() {
  std::shared_ptr<QMRReputationLookup> provider = QMRBasaltReputationLookup::create();
  if (!provider) {
    static qm::Log& log =
        qm::Log::create(qm::kQMRLogSubsystem, "+[QMRReputationLookup basaltReputationProvider]");
    QM_LOG_ERROR(log, "Error instantiating Basalt reputation provider!");
  }
  return provider;
}

std::shared_ptr<QMRReputationLookup> QMRReputationLookup::wispReputationProviderWithSettingsClient(
    std::shared_ptr<QMRSettingsClient> settingsClient) {
  return QMRWispReputationLookup::create(std::move(settingsClient));
}
