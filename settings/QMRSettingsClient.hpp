// The client of the settings daemon: a copy of the user's and the system's settings and of the user's
// allow-list, fetched anew whenever the daemon says that they changed, and one-way reports to it. The daemon
// makes one at its start and gives it to every backend.
//
// The replies of the getters come on the connection's queue. When the daemon cannot be reached or its answer
// is not what the protocol allows, that is logged and the reply is not called. The copies are replaced as a
// whole by each fetch that succeeds; one that fails leaves them.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/block.hpp"
#include "foundation/property.hpp"
#include "foundation/value.hpp"
#include "platform/notify.hpp"
#include "platform/queue.hpp"
#include "settings/QMRAuthorization.hpp"
#include "settings/QMRCustomization.hpp"
#include "settings/QMRServiceClient.hpp"
#include "settings/QMRSettingsClientProtocol.hpp"
#include "settings/handlers_by_name.hpp"
#include "settings/remote_action_protocols.hpp"

class QMRSettingsClient : public QMRServiceClient,
                          public QMRSettingsClientProtocol,
                          public RemoteActionEventsProtocol,
                          public RemoteActionExecutedEventsProtocol {
 public:
  using UserAndSystemSettingsReply = qm::Block<void(
      const qm::Dictionary& userSettings, const qm::Dictionary& systemSettings, const qm::ErrorPtr& error)>;
  using WhitelistReply = qm::Block<void(const qm::Array& whitelist, bool success)>;
  using WhitelistUpdateCallback = qm::Block<void(const qm::Array& whitelist)>;
  // A pushed action: where its progress may be reported (may be null), its data, and what to call, once, with
  // the result code when it is done.
  using RemoteActionHandler =
      qm::Block<void(const qm::XPCEndpoint& progressListener, const qm::Dictionary& actionData,
                     const qm::Block<void(std::int64_t result)>& finishCallback)>;
  using RemoteActionExecutedHandler = qm::Block<void(std::int64_t completionResult)>;

  // A client of the settings daemon, or of the service behind a ready connection. Connects at once, to
  // subscribe to remote actions, except in the operator's managed variant of the product. Never null.
  static std::shared_ptr<QMRSettingsClient> create();
  static std::shared_ptr<QMRSettingsClient> create(std::shared_ptr<qm::RemoteConnection> xpcConnection);
  static std::shared_ptr<QMRSettingsClient> createNonPrivilegedClient() { return create(); }
  ~QMRSettingsClient() override;

  // Registers for the daemon's notifications and fetches everything for the first time, without waiting for
  // it. The reply, which may be null, says whether both fetches succeeded; it does not come when the client
  // goes first. No update callback is called.
  void startListeners();
  void startListenersWithReply(qm::Block<void(bool success)> reply);

  // What has been fetched does not change any more; never null.
  std::shared_ptr<const qm::Dictionary> userSettings() const { return userSettings_.get(); }
  std::shared_ptr<const qm::Dictionary> systemSettings() const override { return systemSettings_.get(); }
  qm::Array whitelist() const { return whitelist_.get(); }
  // The task is among the dismissed ones of the user settings.
  bool isTaskPermanentlyDismissed(const std::string& taskName) const;

  void getUserAndSystemSettingsWithReply(UserAndSystemSettingsReply reply);
  void getUserSettingsWithReply(SettingsReply reply);
  void getSystemSettingsWithReply(SettingsReply reply) override;
  void getUserWhitelistWithReply(WhitelistReply reply);

  void addSettingsUpdateCallback(SettingsUpdateCallback callback) override;
  void removeSettingsUpdateCallback(const SettingsUpdateCallback& callback) override;
  // Called in the order of addition, without a lock. A null block is ignored.
  void addWhitelistUpdateCallback(WhitelistUpdateCallback callback);

  // Registers for the notification, once; also done by the first callback that is added.
  void setupSettingsNotification();
  void setupWhitelistNotification();
  // Stores the values and calls the callbacks.
  void handleNotificationForUserSettings(const qm::Dictionary& userSettings,
                                         const qm::Dictionary& systemSettings);
  void handleWhitelistNotification(const qm::Array& whitelist);

  // One way: errors of the connection are logged, nobody is told.
  void updateWispConfigurationState(std::int64_t state);
  void updateWispError(const qm::ErrorPtr& error) override;
  void setWispErrorState(std::int64_t state);
  void setTCCAccessGranted(bool granted);

  // The daemon's object, see qmsettingsdProtocol.
  qm::RemoteProxy settingsdProxy();
  qm::RemoteProxy settingsdProxy(ErrorCallback errorCallback);
  qm::RemoteProxy synchronousSettingsdProxy();

  // Handlers of remote actions by their name, called in the order of addition; removed by identity, one at a
  // time. Null blocks are ignored.
  void subscribeForRemoteActionWithName(const std::string& name, RemoteActionHandler handler);
  void unsubscribeForRemoteActionWithName(const std::string& name, const RemoteActionHandler& handler);
  void subscribeForRemoteActionExecutedWithName(const std::string& name, RemoteActionExecutedHandler handler);
  void unsubscribeForRemoteActionExecutedWithName(const std::string& name,
                                                  const RemoteActionExecutedHandler& handler);

  // Called by the settings daemon.
  void remoteActionWasPushedWithName(const std::string& name, const qm::XPCEndpoint& progressListener,
                                     const qm::Dictionary& actionData,
                                     qm::Block<void(std::int64_t result)> finishCallback) override;
  void remoteActionWasExecutedWithName(const std::string& name, std::int64_t completionResult) override;

  void shutdown() override;
  std::string description() const override;

  const QMRCustomization& customization() const { return customization_; }
  const QMRAuthorization& authorization() const { return authorization_; }
  // Kept for the product's other programs: profile identifiers, whether time-limit events are subscribed to
  // (off), and the text of authorisation prompts. The client itself neither sets nor uses them.
  std::optional<std::string> userProfileUUID() const { return userProfileUUID_.get(); }
  void setUserProfileUUID(std::optional<std::string> uuid) { userProfileUUID_.set(std::move(uuid)); }
  std::optional<std::string> systemProfileUUID() const { return systemProfileUUID_.get(); }
  void setSystemProfileUUID(std::optional<std::string> uuid) { systemProfileUUID_.set(std::move(uuid)); }
  bool subscribedToTimeLimitEventsProtocol() const { return subscribedToTimeLimitEventsProtocol_.get(); }
  void setSubscribedToTimeLimitEventsProtocol(bool is) { subscribedToTimeLimitEventsProtocol_.set(is); }
  std::optional<std::string> authMessage() const { return authMessage_.get(); }
  void setAuthMessage(std::optional<std::string> message) { authMessage_.set(std::move(message)); }

 protected:
  qm::RemoteExport exportForProtocol(const std::string& protocolName) override;

 private:
  QMRSettingsClient();
  explicit QMRSettingsClient(std::shared_ptr<qm::RemoteConnection> xpcConnection);
  void initialize();
  void storeSettings(const qm::Dictionary& userSettings, const qm::Dictionary& systemSettings);
  std::weak_ptr<QMRSettingsClient> weakClient();
  void registerForNotification(const char* name, int& token, void (QMRSettingsClient::*fetch)());
  void fetchInitialWhitelist(bool hasSettings, const qm::Block<void(bool success)>& reply);
  void fetchUpdatedSettings();
  void fetchUpdatedWhitelist();

  const qm::Queue settingsUpdateQueue_ = qm::Queue::serial(
      "com.quillmarsh.settingsClient.settingsUpdateQueue", qm::QualityOfService::standard, -1);
  qm::Property<bool> subscribedToTimeLimitEventsProtocol_;

  std::mutex tokensLock_;  // taken under settingsCallbacksLock_, too
  int settingsNotifyToken_ = qm::kNotifyTokenInvalid;
  int whitelistNotifyToken_ = qm::kNotifyTokenInvalid;
  bool isShutDown_ = false;

  qm::Property<qm::Array> whitelist_;
  qm::Property<std::optional<std::string>> userProfileUUID_;
  qm::Property<std::optional<std::string>> systemProfileUUID_;

  std::mutex whitelistCallbacksLock_;
  std::vector<WhitelistUpdateCallback> whitelistUpdateCallbacks_;

  std::recursive_mutex settingsCallbacksLock_;  // held while the callbacks run
  std::vector<SettingsUpdateCallback> settingsUpdateCallbacks_;

  const QMRCustomization customization_;
  const QMRAuthorization authorization_;
  qm::Property<std::shared_ptr<const qm::Dictionary>> userSettings_{
      std::make_shared<const qm::Dictionary>()};  // never null
  qm::Property<std::shared_ptr<const qm::Dictionary>> systemSettings_{
      std::make_shared<const qm::Dictionary>()};  // never null
  qm::HandlersByName<RemoteActionHandler> remoteActionsHandlers_;
  qm::HandlersByName<RemoteActionExecutedHandler> remoteActionsExecutedHandlers_;
  qm::Property<std::optional<std::string>> authMessage_;
};
