// Work on a concurrent queue with a bound on what runs at once and on what waits. Used for sample analyses,
// each of which takes memory for a whole file.
#pragma once

#include <cstddef>
#include <memory>

#include "foundation/block.hpp"
#include "platform/queue.hpp"

namespace qm {

class BoundedWork {
 public:
  // At most `running` items at once (at least one) and `waiting` behind them.
  BoundedWork(Queue queue, std::size_t running, std::size_t waiting);

  // Takes the item and runs it once, in the order of the calls; false when there is no room, and the item is
  // dropped. Any thread. Items taken still run when this object is gone.
  [[nodiscard]] bool submit(Block<void()> item);
  // There would be no room just now.
  bool isFull() const;

 private:
  struct State;
  const std::shared_ptr<State> state_;
};

}  // namespace qm
