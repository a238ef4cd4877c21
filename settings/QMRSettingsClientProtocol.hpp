// What a reputation backend needs of the settings client: the system settings, word of their changes, and a
// place to report its errors. Implemented by QMRSettingsClient; tests put their substitute here.
#pragma once

#include <memory>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "foundation/value.hpp"

class QMRSettingsClientProtocol {
 public:
  using SettingsReply = qm::Block<void(const qm::Dictionary& settings, const qm::ErrorPtr& error)>;
  using SettingsUpdateCallback =
      qm::Block<void(const qm::Dictionary& userSettings, const qm::Dictionary& systemSettings)>;

  virtual ~QMRSettingsClientProtocol() = default;

  // As last fetched; empty before that, never null. Keys: settings_keys.hpp.
  virtual std::shared_ptr<const qm::Dictionary> systemSettings() const = 0;
  // Asks the settings daemon. When it cannot be reached that is logged and the reply is not called.
  virtual void getSystemSettingsWithReply(SettingsReply reply) = 0;

  // Callbacks run in the order in which they were added, one walk at a time, on the thread that has the new
  // settings; they may add and remove callbacks. A null block is ignored.
  virtual void addSettingsUpdateCallback(SettingsUpdateCallback callback) = 0;
  // The very block that was added, once; any other is ignored. It is not called any more when this returns,
  // unless a callback itself removes it.
  virtual void removeSettingsUpdateCallback(const SettingsUpdateCallback& callback) = 0;

  // Null: the backend works again. One way; errors of the connection are logged.
  virtual void updateWispError(const qm::ErrorPtr& error) = 0;
};
