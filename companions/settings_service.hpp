// The settings daemon's service: admits peers, each of them checked on a queue of its own, and serves them
// what is in force, their reports, their subscriptions and, to whoever may, the administration.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "companions/bounded_work.hpp"
#include "companions/remote_action_subscribers.hpp"
#include "companions/settings_store.hpp"
#include "foundation/block.hpp"
#include "platform/remote_connection.hpp"

namespace qm {

class SettingsService : public std::enable_shared_from_this<SettingsService> {
 public:
  struct Options {
    // Whether a peer may talk; may take its time. Nothing of the peer is read before it has said so.
    Block<bool(const RemoteConnection& peer)> admission;
    // The effective user of a peer.
    Block<std::uint32_t(const RemoteConnection& peer)> userOf = [](const RemoteConnection& peer) {
      return peer.effectiveUserIdentifier();
    };
    std::uint32_t owner = 0;  // who may administer besides uid 0
    RemoteActionSubscribers::Limits subscribers{};
    std::size_t undecidedPeers = 64;  // being checked; more are refused
    std::size_t connectionsOfOneProcess = 64;
    std::size_t waitingChanges = 256;  // of the settings file; more are refused
  };

  static std::shared_ptr<SettingsService> create(std::shared_ptr<SettingsStore> store, Options options);

  // Sets the listener's delegate and resumes it; the listener keeps the service.
  void serve(const std::shared_ptr<RemoteListener>& listener);

  const RemoteActionSubscribers& subscribers() const { return *subscribers_; }

 private:
  class Peer;
  struct Entry {
    std::shared_ptr<RemoteConnection> connection;
    std::shared_ptr<Peer> peer;
  };

  SettingsService(std::shared_ptr<SettingsStore> store, Options options);

  bool accept(const std::shared_ptr<RemoteConnection>& connection);
  void decide(const std::shared_ptr<RemoteConnection>& connection);
  // With mutex_ held. Null when its process has as many connections as it may.
  std::shared_ptr<Peer> add(const std::shared_ptr<RemoteConnection>& connection);
  void remove(std::uint64_t number);
  // Keeps what is reported, and has it written down.
  void keep(const Dictionary& changes);

  const std::shared_ptr<SettingsStore> store_;
  const Options options_;
  const std::shared_ptr<RemoteActionSubscribers> subscribers_;
  BoundedWork changes_;      // of the settings file, one after the other
  BoundedWork stateWrites_;  // one runs and one waits: that one writes whatever has come until then

  std::mutex mutex_;
  std::size_t undecided_ = 0;
  std::uint64_t lastNumber_ = 0;
  std::map<std::uint64_t, Entry> peers_;
};

}  // namespace qm
