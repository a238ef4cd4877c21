#include "companions/bounded_work.hpp"

#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>

namespace qm {

struct BoundedWork::State {
  State(Queue target, std::size_t runningLimit, std::size_t waitingLimit)
      : queue(std::move(target)),
        maximumRunning(std::max<std::size_t>(runningLimit, 1)),
        maximumWaiting(waitingLimit) {}

  // Runs the item and then those that came meanwhile, one after the other.
  static void run(const std::shared_ptr<State>& state, Block<void()> item) {
    while (item) {
      item();
      item = nullptr;  // what it holds goes before the next one begins
      const std::lock_guard lock(state->mutex);
      if (state->waiting.empty()) {
        --state->running;
        return;
      }
      item = std::move(state->waiting.front());
      state->waiting.pop_front();
    }
  }

  const Queue queue;
  const std::size_t maximumRunning;
  const std::size_t maximumWaiting;
  std::mutex mutex;
  std::size_t running = 0;
  std::deque<Block<void()>> waiting;
};

BoundedWork::BoundedWork(Queue queue, std::size_t running, std::size_t waiting)
    : state_(std::make_shared<State>(std::move(queue), running, waiting)) {}

bool BoundedWork::submit(Block<void()> item) {
  {
    const std::lock_guard lock(state_->mutex);
    if (state_->running >= state_->maximumRunning) {
      if (state_->waiting.size() >= state_->maximumWaiting) return false;
      state_->waiting.push_back(std::move(item));
      return true;
    }
    ++state_->running;
  }
  state_->queue.async(
      [state = state_, item = std::move(item)]() mutable { State::run(state, std::move(item)); });
  return true;
}

bool BoundedWork::isFull() const {
  const std::lock_guard lock(state_->mutex);
  return state_->running >= state_->maximumRunning && state_->waiting.size() >= state_->maximumWaiting;
}

}  // namespace qm
