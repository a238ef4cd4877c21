#include "settings/QMRSettingsClient.hpp"

#include <algorithm>
#include <optional>
#include <string_view>

#include "foundation/log.hpp"
#include "foundation/object_description.hpp"
#include "platform/activity.hpp"
#include "settings/qmsettingsdProtocol.hpp"
#include "settings/settings_keys.hpp"

namespace {

constexpr const char* kClassName = "QMRSettingsClient";

qm::Log& classLog() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, kClassName);
  return log;
}

// For the calls of the named block, which lives for ever.
QMRServiceClient::ErrorCallback errorLogger(const char* block) {
  return [block](const qm::ErrorPtr& error) { QM_LOG_ERROR(classLog(), "%s: XPC error: %@", block, error); };
}

// The URL class has no record here: it is allowed, but a reply that holds one fails to decode.
void declareReplyClasses(const std::shared_ptr<qm::RemoteConnection>& connection) {
  qm::RemoteInterface interface = connection->remoteObjectInterface();
  interface.setClasses({{.name = "NSArray"}, {.name = "QMRTidal2URL"}}, "getTidal2URLsWithCallback:", 1,
                       true);
  connection->setRemoteObjectInterface(std::move(interface));
}

}  // namespace

std::shared_ptr<QMRSettingsClient> QMRSettingsClient::create() {
  std::shared_ptr<QMRSettingsClient> client(new QMRSettingsClient);
  client->initialize();
  return client;
}

std::shared_ptr<QMRSettingsClient> QMRSettingsClient::create(
    std::shared_ptr<qm::RemoteConnection> xpcConnection) {
  std::shared_ptr<QMRSettingsClient> client(new QMRSettingsClient(std::move(xpcConnection)));
  client->initialize();
  return client;
}

QMRSettingsClient::QMRSettingsClient()
    : QMRServiceClient(kSettingsServiceName, qm::remoteInterface<qmsettingsdProtocol>(),
                       &declareReplyClasses) {}

QMRSettingsClient::QMRSettingsClient(std::shared_ptr<qm::RemoteConnection> xpcConnection)
    : QMRServiceClient(std::move(xpcConnection), qm::remoteInterface<qmsettingsdProtocol>()) {}

QMRSettingsClient::~QMRSettingsClient() {
  QM_LOG_DEBUG(classLog(), "%s dealloc", kClassName);
  QMRSettingsClient::shutdown();
}

void QMRSettingsClient::initialize() {
  if (customization_.isMDR()) return;
  for (const std::string_view protocolName : {qm::RemoteProtocol<RemoteActionEventsProtocol>::name,
                                              qm::RemoteProtocol<RemoteActionExecutedEventsProtocol>::name})
    subscribeToUpdateWithProtocol(std::string(protocolName));
}

void QMRSettingsClient::shutdown() {
  QM_LOG_DEBUG(classLog(), "%@: Shutting down...", QMRSettingsClient::description());
  {
    const std::lock_guard lock(tokensLock_);
    isShutDown_ = true;
    for (int* token : {&settingsNotifyToken_, &whitelistNotifyToken_})
      if (*token >= 0) qm::notifyCancel(std::exchange(*token, qm::kNotifyTokenInvalid));
  }
  QMRServiceClient::shutdown();
}

std::string QMRSettingsClient::description() const {
  return qm::objectDescription(kClassName, this);
}

std::weak_ptr<QMRSettingsClient> QMRSettingsClient::weakClient() {
  return std::static_pointer_cast<QMRSettingsClient>(weak_from_this().lock());
}

qm::RemoteExport QMRSettingsClient::exportForProtocol(const std::string& protocolName) {
  if (protocolName == qm::RemoteProtocol<RemoteActionEventsProtocol>::name)
    return qm::remoteExport<RemoteActionEventsProtocol>(weakClient());
  if (protocolName == qm::RemoteProtocol<RemoteActionExecutedEventsProtocol>::name)
    return qm::remoteExport<RemoteActionExecutedEventsProtocol>(weakClient());
  return {};
}

// --- The settings daemon's object ---

qm::RemoteProxy QMRSettingsClient::settingsdProxy() {
  return settingsdProxy(errorLogger("-[QMRSettingsClient settingsdProxy]_block_invoke"));
}

qm::RemoteProxy QMRSettingsClient::settingsdProxy(ErrorCallback errorCallback) {
  return proxyWithErrorCallback(std::move(errorCallback));
}

qm::RemoteProxy QMRSettingsClient::synchronousSettingsdProxy() {
  return synchronousProxyWithErrorCallback(
      errorLogger("-[QMRSettingsClient synchronousSettingsdProxy]_block_invoke"));
}

void QMRSettingsClient::getUserAndSystemSettingsWithReply(UserAndSystemSettingsReply reply) {
  settingsdProxy().call<&qmsettingsdProtocol::getUserAndSystemSettingsWithReply>(std::move(reply));
}

void QMRSettingsClient::getUserSettingsWithReply(SettingsReply reply) {
  settingsdProxy().call<&qmsettingsdProtocol::getUserSettingsWithReply>(std::move(reply));
}

void QMRSettingsClient::getSystemSettingsWithReply(SettingsReply reply) {
  settingsdProxy().call<&qmsettingsdProtocol::getSystemSettingsWithReply>(std::move(reply));
}

void QMRSettingsClient::getUserWhitelistWithReply(WhitelistReply reply) {
  settingsdProxy().call<&qmsettingsdProtocol::getUserWhitelistWithReply>(std::move(reply));
}

void QMRSettingsClient::updateWispConfigurationState(std::int64_t state) {
  settingsdProxy(errorLogger("-[QMRSettingsClient updateWispConfigurationState:]_block_invoke"))
      .call<&qmsettingsdProtocol::updateWispConfigurationState>(state);
}

void QMRSettingsClient::updateWispError(const qm::ErrorPtr& error) {
  settingsdProxy(errorLogger("-[QMRSettingsClient updateWispError:]_block_invoke"))
      .call<&qmsettingsdProtocol::updateWispError>(error);
}

void QMRSettingsClient::setWispErrorState(std::int64_t state) {
  settingsdProxy(errorLogger("-[QMRSettingsClient setWispErrorState:]_block_invoke"))
      .call<&qmsettingsdProtocol::setWispErrorState>(state);
}

void QMRSettingsClient::setTCCAccessGranted(bool granted) {
  qm::initiateActivity("Updating kTCCGranted", [this, granted] {
    settingsdProxy().call<&qmsettingsdProtocol::setTCCAccessGranted>(granted);
  });
}

// --- The copies of the settings and the allow-list ---

void QMRSettingsClient::startListeners() {
  startListenersWithReply([](bool success) {
    if (!success) QM_LOG_ERROR(classLog(), "Error fetching user and system settings or whitelist");
  });
}

void QMRSettingsClient::startListenersWithReply(qm::Block<void(bool success)> reply) {
  QM_LOG_INFO(classLog(), "Starting settings and whitelist notification listeners");
  setupWhitelistNotification();
  setupSettingsNotification();
  getUserAndSystemSettingsWithReply([client = weakClient(), reply = std::move(reply)](
                                        const qm::Dictionary& userSettings,
                                        const qm::Dictionary& systemSettings, const qm::ErrorPtr& error) {
    const std::shared_ptr<QMRSettingsClient> self = client.lock();
    if (!self) return;
    QM_LOG_DEBUG(classLog(), "Got initial getUserAndSystemSettingsWithReply");
    if (error) {
      QM_LOG_ERROR(classLog(), "Error receiving user and system settings: %@", error);
    } else {
      self->storeSettings(userSettings, systemSettings);
    }
    self->fetchInitialWhitelist(error == nullptr, reply);
  });
}

void QMRSettingsClient::storeSettings(const qm::Dictionary& userSettings,
                                      const qm::Dictionary& systemSettings) {
  userSettings_.set(std::make_shared<const qm::Dictionary>(userSettings));
  systemSettings_.set(std::make_shared<const qm::Dictionary>(systemSettings));
}

void QMRSettingsClient::fetchInitialWhitelist(bool hasSettings, const qm::Block<void(bool success)>& reply) {
  getUserWhitelistWithReply(
      [client = weakClient(), hasSettings, reply](const qm::Array& whitelist, bool success) {
        const std::shared_ptr<QMRSettingsClient> self = client.lock();
        if (!self) return;
        if (success) self->whitelist_.set(whitelist);
        QM_LOG_INFO(classLog(), "settings and whitelist notification listeners have both responded.");
        if (reply) reply(hasSettings && success);
      });
}

void QMRSettingsClient::setupSettingsNotification() {
  registerForNotification(kSettingsUpdatedNotification, settingsNotifyToken_,
                          &QMRSettingsClient::fetchUpdatedSettings);
}

void QMRSettingsClient::setupWhitelistNotification() {
  registerForNotification(kWhitelistUpdatedNotification, whitelistNotifyToken_,
                          &QMRSettingsClient::fetchUpdatedWhitelist);
}

void QMRSettingsClient::registerForNotification(const char* name, int& token,
                                                void (QMRSettingsClient::*fetch)()) {
  const std::lock_guard lock(tokensLock_);
  if (isShutDown_ || token != qm::kNotifyTokenInvalid) return;
  const qm::NotifyStatus status =
      qm::notifyRegisterDispatch(name, &token, settingsUpdateQueue_, [client = weakClient(), fetch](int) {
        if (const std::shared_ptr<QMRSettingsClient> self = client.lock()) (self.get()->*fetch)();
      });
  if (status != qm::NotifyStatus::ok)
    QM_LOG_ERROR(classLog(), "Error registering for notification %{public}@: %u", name, status);
}

void QMRSettingsClient::fetchUpdatedSettings() {
  getUserAndSystemSettingsWithReply([client = weakClient()](const qm::Dictionary& userSettings,
                                                            const qm::Dictionary& systemSettings,
                                                            const qm::ErrorPtr& error) {
    if (error) {
      QM_LOG_ERROR(classLog(), "Error fetching settings: %@", error);
      return;
    }
    if (const std::shared_ptr<QMRSettingsClient> self = client.lock())
      self->handleNotificationForUserSettings(userSettings, systemSettings);
  });
}

void QMRSettingsClient::fetchUpdatedWhitelist() {
  getUserWhitelistWithReply([client = weakClient()](const qm::Array& whitelist, bool success) {
    if (!success) return;
    if (const std::shared_ptr<QMRSettingsClient> self = client.lock())
      self->handleWhitelistNotification(whitelist);
  });
}

void QMRSettingsClient::handleNotificationForUserSettings(const qm::Dictionary& userSettings,
                                                          const qm::Dictionary& systemSettings) {
  const std::lock_guard lock(settingsCallbacksLock_);
  storeSettings(userSettings, systemSettings);
  const std::vector<SettingsUpdateCallback> registered = settingsUpdateCallbacks_;
  for (const SettingsUpdateCallback& callback : registered) {
    const bool isStillThere = std::find(settingsUpdateCallbacks_.begin(), settingsUpdateCallbacks_.end(),
                                        callback) != settingsUpdateCallbacks_.end();
    if (isStillThere) callback(userSettings, systemSettings);
  }
}

void QMRSettingsClient::handleWhitelistNotification(const qm::Array& whitelist) {
  whitelist_.set(whitelist);
  std::vector<WhitelistUpdateCallback> registered;
  {
    const std::lock_guard lock(whitelistCallbacksLock_);
    registered = whitelistUpdateCallbacks_;
  }
  for (const WhitelistUpdateCallback& callback : registered) callback(whitelist);
}

void QMRSettingsClient::addSettingsUpdateCallback(SettingsUpdateCallback callback) {
  if (!callback) return;
  const std::lock_guard lock(settingsCallbacksLock_);
  settingsUpdateCallbacks_.push_back(std::move(callback));
  setupSettingsNotification();
}

void QMRSettingsClient::removeSettingsUpdateCallback(const SettingsUpdateCallback& callback) {
  if (!callback) return;
  const std::lock_guard lock(settingsCallbacksLock_);
  const auto found = std::find(settingsUpdateCallbacks_.begin(), settingsUpdateCallbacks_.end(), callback);
  if (found != settingsUpdateCallbacks_.end()) settingsUpdateCallbacks_.erase(found);
}

void QMRSettingsClient::addWhitelistUpdateCallback(WhitelistUpdateCallback callback) {
  if (!callback) return;
  {
    const std::lock_guard lock(whitelistCallbacksLock_);
    whitelistUpdateCallbacks_.push_back(std::move(callback));
  }
  setupWhitelistNotification();
}

bool QMRSettingsClient::isTaskPermanentlyDismissed(const std::string& taskName) const {
  const std::shared_ptr<const qm::Dictionary> settings = userSettings();
  const auto* dismissed = qm::find<qm::Array>(*settings, kUserSettingsKeyDismissedTasks);
  QM_LOG_DEBUG(classLog(), "Looking for %@ in dismissed tasks %@", taskName,
               dismissed == nullptr ? std::nullopt : std::optional(*dismissed));
  return dismissed != nullptr &&
         std::find(dismissed->begin(), dismissed->end(), qm::Value(taskName)) != dismissed->end();
}

// --- Remote actions ---

void QMRSettingsClient::subscribeForRemoteActionWithName(const std::string& name,
                                                         RemoteActionHandler handler) {
  remoteActionsHandlers_.add(name, std::move(handler));
}

void QMRSettingsClient::unsubscribeForRemoteActionWithName(const std::string& name,
                                                           const RemoteActionHandler& handler) {
  remoteActionsHandlers_.remove(name, handler);
}

void QMRSettingsClient::subscribeForRemoteActionExecutedWithName(const std::string& name,
                                                                 RemoteActionExecutedHandler handler) {
  remoteActionsExecutedHandlers_.add(name, std::move(handler));
}

void QMRSettingsClient::unsubscribeForRemoteActionExecutedWithName(
    const std::string& name, const RemoteActionExecutedHandler& handler) {
  remoteActionsExecutedHandlers_.remove(name, handler);
}

void QMRSettingsClient::remoteActionWasPushedWithName(const std::string& name,
                                                      const qm::XPCEndpoint& progressListener,
                                                      const qm::Dictionary& actionData,
                                                      qm::Block<void(std::int64_t result)> finishCallback) {
  QM_LOG_DEBUG(classLog(), "remoteActionWasPushedWithName: %@ and listener %@", name, progressListener);
  const std::vector<RemoteActionHandler> handlers = remoteActionsHandlers_.forName(name);
  if (handlers.empty() && finishCallback) finishCallback(kRemoteActionHasNoHandler);
  for (const RemoteActionHandler& handler : handlers) handler(progressListener, actionData, finishCallback);
}

void QMRSettingsClient::remoteActionWasExecutedWithName(const std::string& name,
                                                        std::int64_t completionResult) {
  for (const RemoteActionExecutedHandler& handler : remoteActionsExecutedHandlers_.forName(name))
    handler(completionResult);
}
