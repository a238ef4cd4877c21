#include "companions/process_shares.hpp"

namespace qm {

std::shared_ptr<WorkShare> WorkShare::create(std::size_t limit) {
  return std::shared_ptr<WorkShare>(new WorkShare(limit));
}

WorkShare::Ticket WorkShare::take() {
  std::size_t taken = taken_;
  do {
    if (taken >= limit_) return nullptr;
  } while (!taken_.compare_exchange_weak(taken, taken + 1));
  return {this, [self = shared_from_this()](const void*) { --self->taken_; }};
}

std::shared_ptr<WorkShare> ProcessShares::of(const AuditToken& peer) {
  const std::lock_guard lock(mutex_);
  std::erase_if(shares_, [](const auto& entry) { return entry.second.expired(); });
  std::weak_ptr<WorkShare>& known = shares_[processInstance(peer)];
  std::shared_ptr<WorkShare> share = known.lock();
  if (share == nullptr) known = share = WorkShare::create(limit_);
  return share;
}

}  // namespace qm
