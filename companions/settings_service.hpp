// The settings daemon's service: serves its peers what is in force, their reports, their subscriptions and,
// to whoever may, the administration.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "companions/admitted_peers.hpp"
#include "companions/bounded_work.hpp"
#include "companions/remote_action_subscribers.hpp"
#include "companions/settings_store.hpp"
#include "foundation/block.hpp"
#include "platform/remote_connection.hpp"

namespace qm {

class SettingsService : public std::enable_shared_from_this<SettingsService> {
 public:
  struct Options {
    AdmittedPeers::Options peers;
    // The effective user of a peer.
    Block<std::uint32_t(const RemoteConnection& peer)> userOf = [](const RemoteConnection& peer) {
      return peer.effectiveUserIdentifier();
    };
    std::uint32_t owner = 0;  // who may administer besides uid 0
    RemoteActionSubscribers::Limits subscribers{};
    std::size_t waitingChanges = 256;  // of the settings file; more are refused
  };

  static std::shared_ptr<SettingsService> create(std::shared_ptr<SettingsStore> store, Options options);

  // Sets the listener's delegate and resumes it; the listener keeps the service.
  void serve(const std::shared_ptr<RemoteListener>& listener);

  const RemoteActionSubscribers& subscribers() const { return *subscribers_; }

 private:
  class Peer;

  SettingsService(std::shared_ptr<SettingsStore> store, Options options);

  // Keeps what is reported, and has it written down.
  void keep(const Dictionary& changes);

  const std::shared_ptr<SettingsStore> store_;
  const Options options_;
  const std::shared_ptr<AdmittedPeers> peers_;
  const std::shared_ptr<RemoteActionSubscribers> subscribers_;
  BoundedWork changes_;      // of the settings file, one after the other
  BoundedWork stateWrites_;  // one runs and one waits: that one writes whatever has come until then
};

}  // namespace qm
