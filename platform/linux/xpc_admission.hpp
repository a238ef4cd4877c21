// The places of one listener for peers that are neither admitted nor refused yet, shared out among the users
// whose programs they are, and the peers that wait for one. Not locked: its owner is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/linux/xpc_disposal.hpp"
#include "platform/linux/xpc_limits.hpp"
#include "platform/linux/xpc_peer.hpp"

namespace qm::xpc {

struct AcceptedPeer {
  FileDescriptor socket;
  Peer peer;

  std::uint32_t userID() const { return peer.token.effectiveUserID(); }
  void hangUp() { closeSocketElsewhere(std::move(socket), userID()); }
};

class AdmissionPlaces {
 public:
  // Nobody at all can be given a place: leave whoever comes in the kernel's queue.
  bool isFull() const { return taken_ >= kMaximumUndecidedPeers; }

  enum class Answer : std::uint8_t {
    place,    // until leave() is called for its user
    wait,     // its user's share is taken: the peer is kept here until leave() hands it out
    refuse,   // too many wait already who have not hung up meanwhile
    clogged,  // refused as well: too many files of its user cannot be closed, which was logged once
  };
  // Not when it is full. The peer is moved from only if it waits.
  Answer enter(AcceptedPeer& accepted);
  // A peer of the user was decided upon. Who of the same user has waited longest, and has its place now.
  std::optional<AcceptedPeer> leave(std::uint32_t userID);
  // Everybody who waits: nobody is going to be admitted any more.
  std::vector<AcceptedPeer> takeWaiting();

 private:
  struct User {
    std::size_t taken = 0;
    std::deque<AcceptedPeer> waiting;  // none while there is a place of the user's share left
  };

  bool canWait(const User& user) const {
    return user.waiting.size() < kMaximumWaitingPeersPerUser && waiting_ < kMaximumWaitingPeers;
  }
  void forgetWhoHungUp();

  std::unordered_map<std::uint32_t, User> users_;  // those with a place
  std::size_t taken_ = 0;
  std::size_t waiting_ = 0;
};

}  // namespace qm::xpc
