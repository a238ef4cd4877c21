// The administration of the settings daemon: our own addition to what it serves, for qmr and whoever manages
// a machine. Offered on the same connection as qmsettingsdProtocol, to uid 0 and the owner of the
// installation; others get SettingsError::notAllowed.
#pragma once

#include <string>
#include <string_view>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "foundation/value.hpp"
#include "platform/remote_protocol.hpp"
#include "settings/qmsettingsdProtocol.hpp"

namespace qm {

// Errors are those of kSettingsErrorDomain; null when it is done: the settings file is changed and on the
// disk.
class SettingsAdministration {
 public:
  using Reply = Block<void(const ErrorPtr& error)>;

  virtual ~SettingsAdministration() = default;

  // All of them or none. The table is "user" or "system".
  virtual void setSettings(const Dictionary& settings, const std::string& table, Reply reply) = 0;
  virtual void removeSettings(const Array& keys, const std::string& table, Reply reply) = 0;
  virtual void setAllowList(const Array& allowList, Reply reply) = 0;

  // For every peer: the error says why the settings file, as it is now, is not what is in force.
  virtual void checkSettingsFile(Reply reply) = 0;

  // Pushes an action to every process that subscribed to remote actions, and waits for them for a bounded
  // time. One dictionary for each: "process", its id (0: not known), and either "result", the code it
  // finished with (3: it has no handler for the action), or "error", a text.
  virtual void pushRemoteAction(const std::string& name, const Dictionary& actionData,
                                Block<void(const Array& results, const ErrorPtr& error)> reply) = 0;
};

// Everything that the daemon serves.
class SettingsDaemonProtocol : public qmsettingsdProtocol, public SettingsAdministration {};

template <>
struct RemoteProtocol<SettingsAdministration> {
  static constexpr std::string_view name = "SettingsAdministration";
  using Methods = RemoteMethods<
      RemoteMethod<"setSettings:inTable:reply:", &SettingsAdministration::setSettings>,
      RemoteMethod<"removeSettings:fromTable:reply:", &SettingsAdministration::removeSettings>,
      RemoteMethod<"setAllowList:reply:", &SettingsAdministration::setAllowList>,
      RemoteMethod<"checkSettingsFileWithReply:", &SettingsAdministration::checkSettingsFile>,
      RemoteMethod<"pushRemoteActionWithName:actionData:reply:", &SettingsAdministration::pushRemoteAction>>;
};

template <>
struct RemoteProtocol<SettingsDaemonProtocol> {
  static constexpr std::string_view name = RemoteProtocol<qmsettingsdProtocol>::name;
  using Methods = JoinedRemoteMethods<RemoteProtocol<qmsettingsdProtocol>::Methods,
                                      RemoteProtocol<SettingsAdministration>::Methods>;
};

}  // namespace qm
