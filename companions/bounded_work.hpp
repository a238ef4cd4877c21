// Work on a concurrent queue with a bound on what runs at once and on what waits: for work that takes memory
// for a whole file, or that may wait for a disk.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>

#include "foundation/block.hpp"
#include "platform/queue.hpp"

namespace qm {

class BoundedWork {
 public:
  // What becomes of items that do not come back, such as the reading of a file on a mount that is dead.
  struct LostItems {
    std::chrono::nanoseconds after{};  // one that has run for so long leaves its place to those that wait
    std::size_t maximum = 0;           // so many at a time; further ones keep their places until they return
  };

  // At most `running` items at once (at least one) and `waiting` behind them.
  BoundedWork(Queue queue, std::size_t running, std::size_t waiting);
  BoundedWork(Queue queue, std::size_t running, std::size_t waiting, LostItems lost);

  // Takes the item and runs it once, in the order of the calls; false when there is no room, and the item is
  // dropped. Any thread. Items taken still run when this object is gone.
  [[nodiscard]] bool submit(Block<void()> item) const;
  // There would be no room just now.
  bool isFull() const;

 private:
  struct State;
  const std::shared_ptr<State> state_;
};

}  // namespace qm
