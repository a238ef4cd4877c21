// What the settings daemon offers to its clients, and the name and notifications it does it under. Settings
// are property-list values by kebab-case keys, see settings_keys.hpp.
#pragma once

#include <cstdint>
#include <string_view>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "foundation/value.hpp"
#include "settings/QMRSubscriptionProtocol.hpp"

// Before the namespace.
inline constexpr const char* kSettingsServiceName = "com.quillmarsh.qmsettingsd";
// Posted when the user or system settings, or the allow-list, have changed. The same in every namespace.
inline constexpr const char* kSettingsUpdatedNotification = "com.quillmarsh.qmsettingsd.settings-updated";
inline constexpr const char* kWhitelistUpdatedNotification = "com.quillmarsh.qmsettingsd.whitelist-updated";

class qmsettingsdProtocol : public QMRSubscriptionProtocol {
 public:
  // The error is null on success; the dictionaries are of no use with one.
  virtual void getUserAndSystemSettingsWithReply(
      qm::Block<void(const qm::Dictionary& userSettings, const qm::Dictionary& systemSettings,
                     const qm::ErrorPtr& error)>
          reply) = 0;
  virtual void getUserSettingsWithReply(
      qm::Block<void(const qm::Dictionary& userSettings, const qm::ErrorPtr& error)> reply) = 0;
  virtual void getSystemSettingsWithReply(
      qm::Block<void(const qm::Dictionary& systemSettings, const qm::ErrorPtr& error)> reply) = 0;
  virtual void getUserWhitelistWithReply(qm::Block<void(const qm::Array& whitelist, bool success)> reply) = 0;

  virtual void updateWispConfigurationState(std::int64_t state) = 0;
  // Null clears the error state.
  virtual void updateWispError(const qm::ErrorPtr& error) = 0;
  virtual void setWispErrorState(std::int64_t state) = 0;

  // Whether the user has given the product access to protected files; kept under kTCCGranted.
  virtual void setTCCAccessGranted(bool granted) = 0;

  // Service addresses as QMRTidal2URL objects. This is the answer of a daemon that keeps none.
  virtual void getTidal2URLsWithCallback(
      qm::Block<void(const qm::ErrorPtr& error, const qm::Array& urls)> callback) {
    callback(nullptr, {});
  }
};

template <>
struct qm::RemoteProtocol<qmsettingsdProtocol> {
  static constexpr std::string_view name = "qmsettingsdProtocol";
  using Methods = qm::JoinedRemoteMethods<
      qm::RemoteProtocol<QMRSubscriptionProtocol>::Methods,
      qm::RemoteMethods<
          qm::RemoteMethod<"getUserAndSystemSettingsWithReply:",
                           &qmsettingsdProtocol::getUserAndSystemSettingsWithReply>,
          qm::RemoteMethod<"getUserSettingsWithReply:", &qmsettingsdProtocol::getUserSettingsWithReply>,
          qm::RemoteMethod<"getSystemSettingsWithReply:", &qmsettingsdProtocol::getSystemSettingsWithReply>,
          qm::RemoteMethod<"getUserWhitelistWithReply:", &qmsettingsdProtocol::getUserWhitelistWithReply>,
          qm::RemoteMethod<"updateWispConfigurationState:",
                           &qmsettingsdProtocol::updateWispConfigurationState>,
          qm::RemoteMethod<"updateWispError:", &qmsettingsdProtocol::updateWispError>,
          qm::RemoteMethod<"setWispErrorState:", &qmsettingsdProtocol::setWispErrorState>,
          qm::RemoteMethod<"setTCCAccessGranted:", &qmsettingsdProtocol::setTCCAccessGranted>,
          qm::RemoteMethod<"getTidal2URLsWithCallback:", &qmsettingsdProtocol::getTidal2URLsWithCallback>>>;
};
