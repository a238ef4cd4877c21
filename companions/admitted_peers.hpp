// The peers of a companion that serves remote calls: each is checked on a queue of its own before anything of
// it is read, one process gets only so many connections, and what a peer may call lives as long as its
// connection. Used by the settings daemon and the Wisp core daemon.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "foundation/block.hpp"
#include "foundation/log.hpp"
#include "platform/remote_connection.hpp"

namespace qm {

class AdmittedPeers : public std::enable_shared_from_this<AdmittedPeers> {
 public:
  struct Options {
    // Whether a peer may talk; may take its time. Nothing of the peer is read before it has said so.
    Block<bool(const RemoteConnection& peer)> admission;
    // Being checked, of all and of one user; more are refused. A user whose programs cannot be looked at
    // leaves places to the others.
    std::size_t undecidedPeers = 64;
    std::size_t undecidedPeersOfOneUser = 32;
    std::size_t connectionsOfOneProcess = 64;
  };
  // What one peer may call; the export holds the object weakly.
  struct Served {
    std::shared_ptr<void> object;
    RemoteExport exported;
  };
  // Makes that of an admitted peer. On the queue of its admission.
  using Serve = Block<Served(const RemoteConnection& peer)>;

  // The name is that of the program, for its queues; the log is where refusals stand.
  static std::shared_ptr<AdmittedPeers> create(std::string name, Log& log, Options options);

  // Sets the listener's delegate and resumes it; the listener keeps this and the block.
  void serve(const std::shared_ptr<RemoteListener>& listener, Serve serve);

 private:
  struct Entry {
    std::shared_ptr<RemoteConnection> connection;
    std::shared_ptr<void> object;
  };

  AdmittedPeers(std::string name, Log& log, Options options);

  bool accept(const std::shared_ptr<RemoteConnection>& connection, const Serve& serve);
  void decide(const std::shared_ptr<RemoteConnection>& connection, std::uint32_t user, const Serve& serve);
  // With mutex_ held. Its number, 0 when its process has as many connections as it may.
  std::uint64_t add(const std::shared_ptr<RemoteConnection>& connection);
  void keep(std::uint64_t number, const std::shared_ptr<void>& object);
  void remove(std::uint64_t number);

  const std::string name_;
  Log& log_;
  const Options options_;

  std::mutex mutex_;
  std::multiset<std::uint32_t> undecided_;  // the user of each
  std::uint64_t lastNumber_ = 0;
  std::map<std::uint64_t, Entry> peers_;
};

}  // namespace qm
