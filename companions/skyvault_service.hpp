// The Skyvault agent's service: admits peers, reads their requests and sends the answers. Look-ups are
// answered where they arrive; samples are examined a few at a time behind bounds, and those of a peer that is
// gone are not begun.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>

#include "companions/bounded_work.hpp"
#include "companions/process_shares.hpp"
#include "companions/skyvault_answers.hpp"
#include "foundation/block.hpp"
#include "platform/xpc.hpp"

namespace qm {

class SkyvaultService : public std::enable_shared_from_this<SkyvaultService> {
 public:
  // Whether a peer may ask; may take its time. Nothing of the peer is read before it has said so.
  using Admission = Block<bool(const XPCConnection& peer)>;

  struct Limits {
    std::size_t runningAnalyses = 2;
    std::size_t waitingAnalyses = 128;  // each of them holds a descriptor
    // Half of all: the reputation daemon is one process and asks for most of them.
    std::size_t analysesOfOneProcess = 64;
    BoundedWork::LostItems lostAnalyses{std::chrono::minutes(3), 8};
  };

  static std::shared_ptr<SkyvaultService> create(std::shared_ptr<SkyvaultAnswers> answers,
                                                 Admission admission, Limits limits);

  // Sets the listener's handler and activates it; the listener keeps the service. `failed` is called when the
  // listener comes to an end, also when its name cannot be had.
  void serve(const XPCConnection& listener, Block<void(const XPCObject& error)> failed);

 private:
  struct Peer;

  SkyvaultService(std::shared_ptr<SkyvaultAnswers> answers, Admission admission, Limits limits);

  void admit(const XPCConnection& connection);
  void handle(const XPCDictionary& request, const std::shared_ptr<Peer>& peer);
  void replyToHash(const XPCDictionary& request, const XPCDictionary& reply);
  void replyToURL(const XPCDictionary& request, const XPCDictionary& reply);
  void replyToMetadata(const XPCDictionary& request, const XPCDictionary& reply, const Peer& peer);
  void replyToSample(const XPCDictionary& request, const XPCDictionary& reply,
                     const std::shared_ptr<Peer>& peer);

  const std::shared_ptr<SkyvaultAnswers> answers_;
  const Admission admission_;
  ProcessShares shares_;
  const BoundedWork analyses_;
};

}  // namespace qm
