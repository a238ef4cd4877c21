#include "filefacts/concurrent_digests.hpp"

#include <atomic>
#include <utility>

#include "platform/queue.hpp"

namespace qm {

// What both threads use: the caller, and an item of the queue that may come late, when its work is done.
class ConcurrentDigests::Shared : public std::enable_shared_from_this<Shared> {
 public:
  FileDigests digests;

  // Leaves the SHA-1 of the bytes to whoever comes first: the queue's item or the caller in complete().
  void offer(const void* bytes, std::size_t length) {
    bytes_ = bytes;
    length_ = length;
    state_.store(State::offered);
    if (itemWaits_.exchange(true)) return;
    Queue::global().async([self = shared_from_this()] {
      self->itemWaits_.store(false);
      self->compute();
    });
  }

  // Returns when nothing is left of what was offered.
  void complete() {
    compute();
    state_.wait(State::taken);
  }

 private:
  enum class State : int { done, offered, taken };

  void compute() {
    State expected = State::offered;
    if (!state_.compare_exchange_strong(expected, State::taken)) return;
    digests.updateSHA1(bytes_, length_);
    state_.store(State::done);
    state_.notify_one();
  }

  const void* bytes_ = nullptr;
  std::size_t length_ = 0;
  std::atomic<State> state_ = State::done;
  std::atomic<bool> itemWaits_ = false;
};

ConcurrentDigests::ConcurrentDigests() : shared_(std::make_shared<Shared>()) {}

ConcurrentDigests::~ConcurrentDigests() {
  shared_->complete();
}

void ConcurrentDigests::update(const void* bytes, std::size_t length) {
  shared_->complete();
  shared_->digests.update(bytes, length);
}

void ConcurrentDigests::updateConcurrently(const void* bytes, std::size_t length) {
  shared_->complete();
  shared_->offer(bytes, length);
  shared_->digests.updateSHA256(bytes, length);
}

void ConcurrentDigests::finish(SHA1Value& sha1, SHA256Value& sha256) {
  shared_->complete();
  shared_->digests.finish(sha1, sha256);
}

}  // namespace qm
