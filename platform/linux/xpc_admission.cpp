#include "platform/linux/xpc_admission.hpp"

#include <poll.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/common/disposal_lanes.hpp"

namespace qm::xpc {
namespace {

bool hasHungUp(const AcceptedPeer& accepted) {
  pollfd entry{.fd = accepted.socket.get(), .events = 0, .revents = 0};
  return ::poll(&entry, 1, 0) == 1;
}

}  // namespace

AdmissionPlaces::Answer AdmissionPlaces::enter(AcceptedPeer& accepted) {
  if (hasTooManyClosings(accepted.userID())) return Answer::clogged;
  User& user = users_[accepted.userID()];
  if (user.taken < kMaximumUndecidedPeersPerUser) {
    ++user.taken;
    ++taken_;
    return Answer::place;
  }
  if (!canWait(user)) forgetWhoHungUp();
  if (!canWait(user)) return Answer::refuse;
  user.waiting.push_back(std::move(accepted));
  ++waiting_;
  return Answer::wait;
}

std::optional<AcceptedPeer> AdmissionPlaces::leave(std::uint32_t userID) {
  const auto found = users_.find(userID);
  if (found == users_.end()) return std::nullopt;
  User& user = found->second;
  if (!user.waiting.empty()) {
    AcceptedPeer next = std::move(user.waiting.front());
    user.waiting.pop_front();
    --waiting_;
    return next;
  }
  --taken_;
  if (--user.taken == 0) users_.erase(found);
  return std::nullopt;
}

// A client that comes and goes without waiting for its welcome leaves one peer behind each time.
void AdmissionPlaces::forgetWhoHungUp() {
  for (auto& [userID, user] : users_) {
    std::deque<AcceptedPeer> staying;
    for (AcceptedPeer& accepted : user.waiting) {
      if (hasHungUp(accepted)) {
        accepted.hangUp();
        --waiting_;
      } else {
        staying.push_back(std::move(accepted));
      }
    }
    user.waiting.swap(staying);
  }
}

std::vector<AcceptedPeer> AdmissionPlaces::takeWaiting() {
  std::vector<AcceptedPeer> result;
  for (auto& [userID, user] : users_) {
    result.insert(result.end(), std::make_move_iterator(user.waiting.begin()),
                  std::make_move_iterator(user.waiting.end()));
    user.waiting.clear();
  }
  waiting_ = 0;
  return result;
}

}  // namespace qm::xpc
