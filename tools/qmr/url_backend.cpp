#include "tools/qmr/url_backend.hpp"

#include <cstddef>
#include <cstdint>
#include <future>
#include <utility>

#include "platform/SVKSkyvaultServiceClientProtocol.hpp"
#include "reputation/QMRReputationLookup.hpp"
#include "reputation/backends/QMRWispReputationLookup.hpp"
#include "settings/QMRCustomization.hpp"
#include "settings/QMRSettingsClient.hpp"
#include "settings/settings_keys.hpp"
#include "tools/qmr/settings_daemon.hpp"

namespace qm::qmr {
namespace {

std::string adviceForBasalt(const URLAnswer& answer) {
  if (answer.failure != URLFailure::reportedByBackend ||
      answer.errorCode != static_cast<std::int64_t>(skyvault::ErrorCode::connectionLost))
    return {};
  return "the Skyvault agent does not run, has ended, or does not admit this program";
}

std::optional<URLBackend> makeBasalt(std::string& problem) {
  auto provider = QMRReputationLookup::reputationProviderWithBasaltEnabled(true, nullptr);
  if (provider != nullptr)
    return URLBackend{.name = "Basalt",
                      .provider = std::move(provider),
                      .advice = [](const URLAnswer& answer) { return adviceForBasalt(answer); }};
  problem = "the Basalt backend cannot be used: the Skyvault agent is not installed";
  return std::nullopt;
}

// The settings client says nothing when the daemon cannot be reached: that is found out first.
bool loadSettings(QMRSettingsClient& client, std::chrono::seconds timeout, std::string& problem) {
  if (!SettingsDaemon(timeout).fetch(client, problem)) return false;
  const auto loaded = std::make_shared<std::promise<bool>>();
  client.startListenersWithReply([loaded](bool success) { loaded->set_value(success); });
  std::future<bool> success = loaded->get_future();
  if (success.wait_for(timeout) == std::future_status::ready && success.get()) return true;
  problem = "the settings daemon did not give them";
  return false;
}

std::string adviceForWisp(const QMRSettingsClient& client, const URLAnswer& answer) {
  if (answer.failure != URLFailure::reportedByBackend ||
      answer.errorCode != QMRWispReputationLookup::kNotAvailable)
    return {};
  const std::shared_ptr<const Dictionary> settings = client.systemSettings();
  const Value* state = find(*settings, kWispConfigState);
  if (state != nullptr && state->integerValue() == QMRWispReputationLookup::kConfigured) return {};
  const std::string key = kWispConfigState;
  const std::string wanted = std::to_string(QMRWispReputationLookup::kConfigured);
  return "the setting " + key + " is " +
         (state == nullptr ? "not set" : state->description() + ", not " + wanted) + ": \"qmr settings set " +
         key + " " + wanted + "\" switches the Wisp service on";
}

std::optional<URLBackend> makeWisp(const URLOptions& options, std::string& problem) {
  const auto client = QMRSettingsClient::create();
  // Ends the subscriptions without a word: a settings daemon that hangs would not take it.
  const auto end =
      std::shared_ptr<void>(nullptr, [client](std::nullptr_t) { client->shutdownWithoutUnsubscribe(); });
  if (!loadSettings(*client, options.timeout, problem)) {
    problem = "the Wisp backend has no settings: " + problem;
    return std::nullopt;
  }
  URLBackend backend{
      .name = "Wisp",
      .provider = QMRReputationLookup::reputationProviderWithBasaltEnabled(false, client),
      .advice = [client, end](const URLAnswer& answer) { return adviceForWisp(*client, answer); }};
  backend.provider->setUseCloudScanForURLLookup(options.cloudScan);
  return backend;
}

}  // namespace

std::optional<URLBackend> makeURLBackend(const URLOptions& options, std::string& problem) {
  return QMRCustomization().useBasalt() ? makeBasalt(problem) : makeWisp(options, problem);
}

}  // namespace qm::qmr
