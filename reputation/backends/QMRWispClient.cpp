#include "reputation/backends/QMRWispClient.hpp"

#include <utility>

#include "foundation/object_description.hpp"
#include "settings/service_identifiers.hpp"

namespace {

void setUpConnection(const std::shared_ptr<qm::RemoteConnection>& connection) {
  qm::RemoteInterface interface = qm::remoteInterface<QMRWispServiceProtocol>();
  allowWispSettingValues(interface);
  connection->setRemoteObjectInterface(std::move(interface));
}

}  // namespace

QMRWispClient::QMRWispClient(ErrorCallback errorCallback)
    : QMRServiceClient(QMRServiceIdentifierWpcore, qm::remoteInterface<QMRWispServiceProtocol>(),
                       &setUpConnection),
      errorCallback_(std::move(errorCallback)) {}

QMRWispClient::QMRWispClient(qm::XPCEndpoint endpoint, ErrorCallback errorCallback)
    : QMRServiceClient(std::move(endpoint), qm::remoteInterface<QMRWispServiceProtocol>(), &setUpConnection),
      errorCallback_(std::move(errorCallback)) {}

qm::Log& QMRWispClient::log() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "QMRWispClient");
  return log;
}

std::string QMRWispClient::description() const {
  return qm::objectDescription("QMRWispClient", this);
}

// --- The proxies ---

QMRWispClient::ErrorCallback QMRWispClient::loggingCallback(ErrorCallback callback) {
  return [callback = std::move(callback)](const qm::ErrorPtr& error) {
    QM_LOG_ERROR(log(), "XPC error: %@", error);
    if (callback) callback(error);
  };
}

qm::RemoteProxy QMRWispClient::proxy() {
  return proxyWithErrorCallback(loggingCallback(errorCallback()));
}

qm::RemoteProxy QMRWispClient::synchronousProxy() {
  return synchronousProxyWithErrorCallback(loggingCallback(errorCallback()));
}

// There is no proxy once the client is shut down.
qm::RemoteProxy QMRWispClient::answeringProxy(ErrorCallback failed) {
  failed = loggingCallback(std::move(failed));
  qm::RemoteProxy proxy = synchronousProxyWithErrorCallback(failed);
  if (!proxy)
    failed(qm::makeError(qm::kCocoaErrorDomain, static_cast<std::int64_t>(qm::RemoteErrorCode::invalid)));
  return proxy;
}

// --- Scans ---

void QMRWispClient::qvsScan(const std::optional<qm::URL>& url, std::uint32_t timeout,
                            QvsScanCallback callback) {
  scanProxy().call<&QMRWispProtocol::qvsScan>(url, timeout, std::move(callback));
}

void QMRWispClient::cloudScan(const std::optional<qm::URL>& url, const qm::Dictionary& metadata,
                              std::uint32_t timeout, CloudScanCallback callback) {
  scanProxy().call<&QMRWispProtocol::cloudScan>(url, metadata, timeout, std::move(callback));
}

void QMRWispClient::fileScan(const qm::Array&, std::uint64_t,
                             const std::shared_ptr<const QMRWispFileScanParametersObjC>&, std::uint32_t,
                             FileScanCallback callback) {
  if (!callback) return;
  callback(std::make_shared<const QMRWispScanCompleteSummaryObjC>(),
           qm::makeError(kErrorDomain, kFileScanNotOffered));
}

// --- Configuration ---

void QMRWispClient::getConfiguration(ConfigurationCallback callback) {
  QM_LOG_DEBUG(log(), "will get configuration");
  proxy().call<&QMRWispProtocol::getConfiguration>(std::move(callback));
}

void QMRWispClient::setConfiguration(const std::shared_ptr<const QMRWispConfigurationObjC>& configuration,
                                     ErrorCallback callback) {
  QM_LOG_DEBUG(log(), "will try set configuration with %@", configuration);
  proxy().call<&QMRWispProtocol::setConfiguration>(configuration, std::move(callback));
}

void QMRWispClient::clearCache(ErrorCallback callback) {
  proxy().call<&QMRWispProtocol::clearCache>(std::move(callback));
}

void QMRWispClient::getSettingValue(std::int64_t key, SettingValueResponse response) {
  proxy().call<&QMRWispProtocol::getSettingValue>(key, std::move(response));
}

void QMRWispClient::setSettingValue(const qm::Value& value, std::int64_t key, ErrorCallback callback) {
  proxy().call<&QMRWispProtocol::setSettingValue>(value, key, std::move(callback));
}

void QMRWispClient::notifyChannelUpdate(std::uint64_t channel, const std::optional<qm::URL>& path,
                                        ErrorCallback callback) {
  proxy().call<&QMRWispProtocol::notifyChannelUpdate>(channel, path, std::move(callback));
}

void QMRWispClient::getSettingValueSync(std::int64_t key, SettingValueResponse response) {
  const auto failed = [response](const qm::ErrorPtr& error) {
    if (response) response(qm::Value(), error);
  };
  answeringProxy(failed).call<&QMRWispProtocol::getSettingValueSync>(key, response);
}

void QMRWispClient::notifyChannelUpdateSync(std::uint64_t channel, const std::optional<qm::URL>& path,
                                            ErrorCallback callback) {
  answeringProxy(callback).call<&QMRWispProtocol::notifyChannelUpdateSync>(channel, path, callback);
}
