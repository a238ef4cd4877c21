#include "platform/linux/event_loop.hpp"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <unordered_map>
#include <utility>

#include "platform/common/thread_annotations.hpp"
#include "platform/linux/process_threads.hpp"

namespace qm {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kTimerIdentifier = 0;
constexpr int kEventsPerWait = 64;

thread_local bool isLoopThread = false;

::epoll_event eventFor(EventInterest interest, std::uint64_t identifier) {
  ::epoll_event event{};
  if (interest.readable) event.events |= EPOLLIN;
  if (interest.writable) event.events |= EPOLLOUT;
  if (event.events == 0) event.events = EPOLLET;  // reports a hang-up once instead of all the time
  event.data.u64 = identifier;
  return event;
}

EventReadiness readinessOf(std::uint32_t events) {
  return {(events & EPOLLIN) != 0, (events & EPOLLOUT) != 0, (events & (EPOLLHUP | EPOLLERR)) != 0};
}

Clock::time_point deadlineAfter(std::chrono::nanoseconds delay) {
  const Clock::time_point now = Clock::now();
  const auto rest = Clock::time_point::max() - now;
  return now + std::clamp(delay, std::chrono::nanoseconds::zero(), std::chrono::nanoseconds(rest));
}

int requireDescriptor(int descriptor, const char* message) {
  if (descriptor < 0) endProcess(message, std::strerror(errno));
  return descriptor;
}

}  // namespace

struct EventLoop::State {
  struct Source {
    int descriptor;
    Handler handler;
  };

  void run();
  void handle(std::uint64_t identifier, EventReadiness readiness);
  void handleTimers();
  void armTimer() QM_REQUIRES(mutex);
  void setInterest(std::uint64_t identifier, EventInterest interest);
  void cancel(std::uint64_t identifier);

  // Open for good, as the loop.
  const int epoll = requireDescriptor(::epoll_create1(EPOLL_CLOEXEC), "no epoll for the event loop: ");
  const int timer = requireDescriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK),
                                      "no timer for the event loop: ");

  Mutex mutex;
  Condition handlerEnded;
  std::uint64_t lastIdentifier QM_GUARDED_BY(mutex) = kTimerIdentifier;
  std::unordered_map<std::uint64_t, std::shared_ptr<const Source>> sources QM_GUARDED_BY(mutex);
  std::uint64_t handling QM_GUARDED_BY(mutex) = 0;  // the source whose handler runs, or none
  std::map<Timer, Block<void()>> timers QM_GUARDED_BY(mutex);
};

void EventLoop::State::run() {
  isLoopThread = true;
  std::array<::epoll_event, kEventsPerWait> events{};
  for (;;) {
    const int count = ::epoll_wait(epoll, events.data(), kEventsPerWait, -1);
    if (count < 0 && errno != EINTR) endProcess("the event loop failed: ", std::strerror(errno));
    for (int index = 0; index < count; ++index) {
      const ::epoll_event& event = events[static_cast<std::size_t>(index)];
      if (event.data.u64 == kTimerIdentifier) {
        handleTimers();
      } else {
        handle(event.data.u64, readinessOf(event.events));
      }
    }
  }
}

// An identifier is never used twice: an event that was fetched before its source was cancelled finds nobody.
void EventLoop::State::handle(std::uint64_t identifier, EventReadiness readiness) {
  std::shared_ptr<const Source> source;
  {
    const MutexLock lock(mutex);
    const auto found = sources.find(identifier);
    if (found == sources.end()) return;
    source = found->second;
    handling = identifier;
  }
  source->handler(readiness);
  source.reset();  // releases the handler if it was cancelled meanwhile, before cancel() returns
  const MutexLock lock(mutex);
  handling = 0;
  handlerEnded.notifyAll();
}

void EventLoop::State::handleTimers() {
  std::uint64_t expirations = 0;
  [[maybe_unused]] const auto size = ::read(timer, &expirations, sizeof expirations);
  const Clock::time_point now = Clock::now();  // what becomes due meanwhile waits for the descriptors' turn
  for (;;) {
    Block<void()> work;
    {
      const MutexLock lock(mutex);
      if (timers.empty() || timers.begin()->first.deadline > now) {
        armTimer();
        return;
      }
      work = std::move(timers.extract(timers.begin()).mapped());
    }
    work();
  }
}

void EventLoop::State::armTimer() {
  if (timers.empty()) return;
  const auto since = timers.begin()->first.deadline.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
  ::itimerspec when{};
  when.it_value.tv_sec = seconds.count();
  when.it_value.tv_nsec = std::chrono::nanoseconds(since - seconds).count();
  ::timerfd_settime(timer, TFD_TIMER_ABSTIME, &when, nullptr);
}

void EventLoop::State::setInterest(std::uint64_t identifier, EventInterest interest) {
  if (isForkedChild()) return;
  const MutexLock lock(mutex);
  const auto found = sources.find(identifier);
  if (found == sources.end()) return;
  ::epoll_event event = eventFor(interest, identifier);
  ::epoll_ctl(epoll, EPOLL_CTL_MOD, found->second->descriptor, &event);
}

void EventLoop::State::cancel(std::uint64_t identifier) {
  if (isForkedChild()) return;           // the epoll is shared with the parent, whose registration stays
  std::shared_ptr<const Source> source;  // released with no lock held
  MutexLock lock(mutex);
  if (const auto found = sources.find(identifier); found != sources.end()) {
    ::epoll_ctl(epoll, EPOLL_CTL_DEL, found->second->descriptor, nullptr);
    source = std::move(found->second);
    sources.erase(found);
  }
  if (isLoopThread) return;
  while (handling == identifier) handlerEnded.wait(lock);
}

EventSource::EventSource(EventSource&& other) noexcept
    : loop_(std::exchange(other.loop_, nullptr)), identifier_(other.identifier_) {}

EventSource& EventSource::operator=(EventSource&& other) noexcept {
  if (this == &other) return *this;
  cancel();
  loop_ = std::exchange(other.loop_, nullptr);
  identifier_ = other.identifier_;
  return *this;
}

EventSource::~EventSource() {
  cancel();
}

void EventSource::setInterest(EventInterest interest) const {
  if (loop_ != nullptr) loop_->state_->setInterest(identifier_, interest);
}

void EventSource::cancel() const {
  if (loop_ != nullptr) loop_->state_->cancel(identifier_);
}

EventLoop& EventLoop::shared() {
  // Never destroyed: its thread runs until the process has ended, also while it exits.
  static EventLoop& loop = *new EventLoop;
  return loop;
}

EventLoop::EventLoop() : state_(std::make_unique<State>()) {
  ::epoll_event event = eventFor({.readable = true}, kTimerIdentifier);
  requireDescriptor(::epoll_ctl(state_->epoll, EPOLL_CTL_ADD, state_->timer, &event),
                    "no timer in the event loop: ");
  if (!startProcessThread("qm.events", [state = state_.get()] { state->run(); })) {
    endProcess("no thread for the event loop");
  }
}

EventLoop::~EventLoop() = default;

EventSource EventLoop::watch(int descriptor, EventInterest interest, Handler handler) {
  requireNoForkedChild("the event loop was used");
  State& state = *state_;
  const MutexLock lock(state.mutex);
  const std::uint64_t identifier = ++state.lastIdentifier;
  ::epoll_event event = eventFor(interest, identifier);
  if (::epoll_ctl(state.epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) return {};
  state.sources.emplace(identifier,
                        std::make_shared<const State::Source>(State::Source{descriptor, std::move(handler)}));
  return {this, identifier};
}

EventLoop::Timer EventLoop::runAfter(std::chrono::nanoseconds delay, Block<void()> work) {
  requireNoForkedChild("a timer was set");
  const Clock::time_point deadline = deadlineAfter(delay);
  State& state = *state_;
  const MutexLock lock(state.mutex);
  const Timer timer{deadline, ++state.lastIdentifier};
  const auto place = state.timers.emplace(timer, std::move(work)).first;
  if (place == state.timers.begin()) state.armTimer();
  return timer;
}

bool EventLoop::cancelTimer(const Timer& timer) {
  if (isForkedChild()) return false;
  decltype(State::timers)::node_type node;  // released with no lock held
  const MutexLock lock(state_->mutex);
  node = state_->timers.extract(timer);
  return !node.empty();
}

bool EventLoop::isCurrent() const {
  return isLoopThread;
}

}  // namespace qm
