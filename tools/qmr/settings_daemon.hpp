// The settings daemon as the command line asks it: each call waits for its answer, at most so long.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "foundation/value.hpp"
#include "settings/QMRServiceClient.hpp"
#include "settings/QMRSettingsClient.hpp"

namespace qm::qmr {

struct AllSettings {
  Dictionary user;
  Dictionary system;
  Array allowList;
};

// Each call returns nothing, or false, when it failed, and leaves what is wrong, for people.
class SettingsDaemon {
 public:
  explicit SettingsDaemon(std::chrono::seconds timeout);

  std::optional<AllSettings> fetch(QMRSettingsClient& client, std::string& problem) const;
  // A null value removes the setting; `wasThere` says whether there was one.
  bool change(const std::string& table, const std::string& key, const Value& value, bool& wasThere,
              std::string& problem) const;
  // Why the settings file, as it is now, is not what is in force; empty when it is, or nobody can tell.
  std::string fileProblem() const;
  bool setAllowList(const Array& allowList, std::string& problem) const;
  // What the daemon gathered: see SettingsAdministration::pushRemoteAction.
  std::optional<Array> push(const std::string& name, const Dictionary& data, std::string& problem) const;

 private:
  ErrorPtr administer(const Block<void(const RemoteProxy&, const Block<void(const ErrorPtr&)>&)>& call) const;
  std::string text(const ErrorPtr& error) const;

  const std::chrono::seconds timeout_;
  const std::string serviceName_;
};

}  // namespace qm::qmr
