#include "companions/bounded_work.hpp"

#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>

#include "companions/call_deadlines.hpp"
#include "foundation/log.hpp"

namespace qm {

namespace {

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "BoundedWork");
  return log;
}

}  // namespace

struct BoundedWork::State : std::enable_shared_from_this<BoundedWork::State> {
  // An item that runs, for as long as it may be lost.
  struct Place {
    CallDeadlines::Call end;
    bool isLost = false;       // under the mutex
    bool hasReturned = false;  // under the mutex
  };

  State(Queue target, std::size_t runningLimit, std::size_t waitingLimit, LostItems lostLimits)
      : queue(std::move(target)),
        maximumRunning(std::max<std::size_t>(runningLimit, 1)),
        maximumWaiting(waitingLimit),
        lost(lostLimits),
        deadlines(lost.maximum == 0 ? nullptr : CallDeadlines::create(queue.label() + ".lost")) {}

  void start(Block<void()> item) {
    queue.async(
        [self = shared_from_this(), item = std::move(item)]() mutable { self->run(std::move(item)); });
  }

  // Runs the item and then those that came meanwhile, one after the other.
  void run(Block<void()> item) {
    while (item) {
      const std::shared_ptr<Place> place = deadlines == nullptr ? nullptr : begin();
      item();
      item = nullptr;  // what it holds goes before the next one begins
      item = next(place.get());
    }
  }

  std::shared_ptr<Place> begin() {
    const auto place = std::make_shared<Place>();
    place->end = deadlines->begin(CallDeadlines::Clock::now() + lost.after, [weak = weak_from_this(), place] {
      if (const auto self = weak.lock()) self->lose(*place);
    });
    return place;
  }

  // What to run in the place of an item that has returned.
  Block<void()> next(Place* place) {
    if (place != nullptr) static_cast<void>(deadlines->end(place->end));
    const std::lock_guard lock(mutex);
    if (place == nullptr) return takeWaiting();
    place->hasReturned = true;
    if (!place->isLost) return takeWaiting();
    --lostItems;
    return nullptr;
  }

  void lose(Place& place) {
    Block<void()> item;
    std::size_t count = 0;
    {
      const std::lock_guard lock(mutex);
      if (place.hasReturned || lostItems >= lost.maximum) return;
      place.isLost = true;
      count = ++lostItems;
      item = takeWaiting();
    }
    QM_LOG_ERROR(log(),
                 "Work on %{public}@ does not come back and loses its place, as the %zu. of at most %zu",
                 queue.label(), count, lost.maximum);
    if (item) start(std::move(item));
  }

  // The place is free when nothing waits. With the mutex held.
  Block<void()> takeWaiting() {
    if (waiting.empty()) {
      --running;
      return nullptr;
    }
    Block<void()> item = std::move(waiting.front());
    waiting.pop_front();
    return item;
  }

  const Queue queue;
  const std::size_t maximumRunning;
  const std::size_t maximumWaiting;
  const LostItems lost;
  const std::shared_ptr<CallDeadlines> deadlines;  // null when nothing is ever lost
  std::mutex mutex;
  std::size_t running = 0;  // without those that are lost
  std::size_t lostItems = 0;
  std::deque<Block<void()>> waiting;
};

BoundedWork::BoundedWork(Queue queue, std::size_t running, std::size_t waiting)
    : BoundedWork(std::move(queue), running, waiting, LostItems()) {}

BoundedWork::BoundedWork(Queue queue, std::size_t running, std::size_t waiting, LostItems lost)
    : state_(std::make_shared<State>(std::move(queue), running, waiting, lost)) {}

bool BoundedWork::submit(Block<void()> item) const {
  {
    const std::lock_guard lock(state_->mutex);
    if (state_->running >= state_->maximumRunning) {
      if (state_->waiting.size() >= state_->maximumWaiting) return false;
      state_->waiting.push_back(std::move(item));
      return true;
    }
    ++state_->running;
  }
  state_->start(std::move(item));
  return true;
}

bool BoundedWork::isFull() const {
  const std::lock_guard lock(state_->mutex);
  return state_->running >= state_->maximumRunning && state_->waiting.size() >= state_->maximumWaiting;
}

}  // namespace qm
