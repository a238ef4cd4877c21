// The Wisp core daemon's service: what its peers may call. Every call is answered once and, when it has a
// time-out, within that; look-ups and scans run on queues of their own behind bounds, and those of a peer
// that is gone are not begun.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "companions/admitted_peers.hpp"
#include "companions/bounded_work.hpp"
#include "companions/call_deadlines.hpp"
#include "companions/file_scans.hpp"
#include "companions/process_shares.hpp"
#include "companions/wisp_answers.hpp"
#include "companions/wisp_configuration.hpp"
#include "foundation/block.hpp"
#include "platform/remote_connection.hpp"

namespace qm {

class WispService : public std::enable_shared_from_this<WispService> {
 public:
  struct Options {
    AdmittedPeers::Options peers;
    // The effective user of a peer.
    Block<std::uint32_t(const RemoteConnection& peer)> userOf = [](const RemoteConnection& peer) {
      return peer.effectiveUserIdentifier();
    };
    std::uint32_t owner = 0;  // who may change the configuration besides uid 0
    // A longer time-out of a call counts as this.
    std::chrono::seconds longestTimeout{60};
    std::size_t runningLookups = 4;
    std::size_t waitingLookups = 4096;
    std::size_t lookupsOfOneProcess = 1024;
    std::size_t scansOfOneProcess = 32;
    FileScans::Limits scans;
  };

  static std::shared_ptr<WispService> create(std::shared_ptr<WispAnswers> answers, Options options);

  // Sets the listener's delegate and resumes it; the listener keeps the service.
  void serve(const std::shared_ptr<RemoteListener>& listener);

 private:
  class Peer;

  WispService(std::shared_ptr<WispAnswers> answers, Options options);

  const std::shared_ptr<WispAnswers> answers_;
  const Options options_;
  const std::shared_ptr<AdmittedPeers> peers_;
  const std::shared_ptr<CallDeadlines> deadlines_;
  WispConfiguration configuration_;
  ProcessShares lookupShares_;
  ProcessShares scanShares_;
  const BoundedWork lookups_;
  const std::shared_ptr<FileScans> scans_;
};

}  // namespace qm
