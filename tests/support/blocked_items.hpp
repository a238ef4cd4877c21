// Items that keep the workers of concurrent queues, as reads of a disk that does not answer would.
#pragma once

#include <latch>

#include "platform/linux/worker_pool.hpp"
#include "platform/queue.hpp"

namespace qm::test {

inline int boundOfConcurrentItems() {
  return static_cast<int>(WorkerPool::shared().boundedLimit());
}

// Items of a concurrent queue, all running, that block as long as it lives.
class BlockedItems {
 public:
  explicit BlockedItems(const Queue& queue, int count = boundOfConcurrentItems())
      : running_(count), done_(count) {
    for (int index = 0; index < count; ++index) {
      queue.async([this] {
        running_.count_down();
        end_.wait();
        done_.count_down();
      });
    }
    running_.wait();
  }
  ~BlockedItems() {
    end_.count_down();
    done_.wait();
  }

 private:
  std::latch running_;
  std::latch end_{1};
  std::latch done_;
};

}  // namespace qm::test
