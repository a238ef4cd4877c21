#include "daemon/request_queue.hpp"

#include <deque>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/activity.hpp"

struct RequestQueue::State {
  State(qm::Queue target, std::size_t maximum) : queue(std::move(target)), maximumPerShare(maximum) {}

  struct Waiting {
    const Peer* peer;  // as a name only
    qm::Block<void()> work;
  };
  struct Use {
    std::size_t running = 0;
    std::deque<Waiting> waiting;  // none while a part of the share is left
  };

  // False when it has to wait.
  bool enter(const RequestShare& share, const Peer* peer, qm::Block<void()>& work);
  // The next work of the share, which has the place now; null when there is none.
  qm::Block<void()> leave(const RequestShare& share);
  void drop(const Peer* peer);
  static void submit(const std::shared_ptr<State>& state, const RequestShare& share, qm::Block<void()> work);

  const qm::Queue queue;
  const std::size_t maximumPerShare;
  std::mutex mutex;
  std::map<RequestShare, Use> uses;  // of shares with work that runs
};

struct RequestQueue::Peer {
  explicit Peer(std::shared_ptr<State> queue) : state(std::move(queue)) {}
  ~Peer() { state->drop(this); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  const std::shared_ptr<State> state;
};

bool RequestQueue::State::enter(const RequestShare& share, const Peer* peer, qm::Block<void()>& work) {
  const std::lock_guard lock(mutex);
  Use& use = uses[share];
  if (use.running < maximumPerShare) {
    ++use.running;
    return true;
  }
  use.waiting.push_back({peer, qm::inCurrentActivity(std::move(work))});
  return false;
}

qm::Block<void()> RequestQueue::State::leave(const RequestShare& share) {
  const std::lock_guard lock(mutex);
  const auto found = uses.find(share);
  Use& use = found->second;
  if (use.waiting.empty()) {
    if (--use.running == 0) uses.erase(found);
    return {};
  }
  qm::Block<void()> next = std::move(use.waiting.front().work);
  use.waiting.pop_front();
  return next;
}

void RequestQueue::State::drop(const Peer* peer) {
  std::vector<qm::Block<void()>> dropped;  // what they hold goes without the lock
  const std::lock_guard lock(mutex);
  for (auto& [share, use] : uses) {
    for (Waiting& each : use.waiting)
      if (each.peer == peer) dropped.push_back(std::move(each.work));
    std::erase_if(use.waiting, [peer](const Waiting& each) { return each.peer == peer; });
  }
}

void RequestQueue::State::submit(const std::shared_ptr<State>& state, const RequestShare& share,
                                 qm::Block<void()> work) {
  state->queue.async([state, share, work = std::move(work)]() mutable {
    work();
    work = nullptr;  // what it holds goes before the next one begins
    if (qm::Block<void()> next = state->leave(share)) submit(state, share, std::move(next));
  });
}

std::size_t RequestQueue::defaultMaximumPerUser() {
  return qm::Queue::blockedItemsBound() / 3;
}

RequestQueue::RequestQueue(qm::Queue queue, std::size_t maximumPerUser)
    : state_(std::make_shared<State>(std::move(queue), maximumPerUser / 2)) {}

RequestQueue RequestQueue::forPeer() const {
  RequestQueue handle = *this;
  handle.peer_ = std::make_shared<const Peer>(state_);
  return handle;
}

void RequestQueue::async(const RequestShare& share, qm::Block<void()> work) const {
  if (state_->enter(share, peer_.get(), work)) State::submit(state_, share, std::move(work));
}
