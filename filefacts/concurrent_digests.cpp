#include "filefacts/concurrent_digests.hpp"

#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/queue.hpp"

namespace qm {

// What both threads use: the caller, and an item of the queue that may come late, when its work is done.
class ConcurrentDigests::Shared : public std::enable_shared_from_this<Shared> {
 public:
  FileDigests digests;

  // Leaves the SHA-1 of the bytes to whoever comes first: the queue's item or the caller in complete().
  void offer(const void* bytes, std::size_t length) {
    {
      const std::lock_guard lock(mutex_);
      bytes_ = bytes;
      length_ = length;
      state_ = State::offered;
      if (std::exchange(itemWaits_, true)) return;
    }
    Queue::global().async([self = shared_from_this()] { self->compute(true); });
  }

  // Returns when nothing is left of what was offered.
  void complete() {
    compute(false);
    std::unique_lock lock(mutex_);
    isDone_.wait(lock, [this] { return state_ == State::done; });
  }

 private:
  enum class State { done, offered, taken };

  void compute(bool isItem) {
    {
      const std::lock_guard lock(mutex_);
      if (isItem) itemWaits_ = false;
      if (state_ != State::offered) return;
      state_ = State::taken;
    }
    digests.updateSHA1(bytes_, length_);
    const std::lock_guard lock(mutex_);
    state_ = State::done;
    isDone_.notify_one();
  }

  std::mutex mutex_;
  std::condition_variable isDone_;
  const void* bytes_ = nullptr;  // whoever took the offer reads these two without the lock
  std::size_t length_ = 0;
  State state_ = State::done;
  bool itemWaits_ = false;
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
