#include "platform/linux/xpc_strand.hpp"

namespace qm::xpc {
namespace {

// Blocks run in one go before others on the target queue get their turn.
constexpr int kBlocksPerTurn = 16;

}  // namespace

void Strand::async(Block<void()> work) {
  {
    MutexLock lock(mutex_);
    work_.push_back(std::move(work));
    if (isScheduled_) return;
    isScheduled_ = true;
  }
  target_.async([self = shared_from_this()] { self->run(); });
}

void Strand::run() {
  for (int i = 0; i < kBlocksPerTurn; ++i) {
    const Block<void()> work = take();
    if (!work) return;
    work();
  }
  target_.async([self = shared_from_this()] { self->run(); });
}

Block<void()> Strand::take() {
  MutexLock lock(mutex_);
  if (work_.empty()) {
    isScheduled_ = false;
    return {};
  }
  Block<void()> work = std::move(work_.front());
  work_.pop_front();
  return work;
}

}  // namespace qm::xpc
