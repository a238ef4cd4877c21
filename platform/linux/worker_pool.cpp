#include "platform/linux/worker_pool.hpp"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/common/disposal_lanes.hpp"
#include "platform/linux/process_threads.hpp"

namespace qm {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMaximumWorkers = 512;
constexpr std::size_t kBoundedWorkers = 64;
constexpr std::size_t kBoundedWorkersPerProcessor = 5;
constexpr std::size_t kMaximumAside = kMaximumWorkers / 2;
constexpr std::size_t kLeftForSerialQueues = kMaximumDisposalLanes + 64;
constexpr std::size_t kMaximumBoundedWorkers = kMaximumWorkers - kMaximumAside - kLeftForSerialQueues;

constexpr std::uint64_t kPicksPerOldest = 16;

constexpr std::chrono::nanoseconds kTick = 1ms;
constexpr std::uint64_t kTicksBeforeDeferredWake = 1;
constexpr std::uint64_t kTicksBeforeGrowth = 2;
// While workers keep the processors busy, more of them for bounded work only help short tasks past long ones.
constexpr std::uint64_t kTicksBeforeSaturatedGrowth = 20;
constexpr std::size_t kSaturatedWorkersPerProcessor = 4;
constexpr std::uint64_t kTicksBetweenCountsWhenSaturated = 5;

int makeTimer() {
  const int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  if (timer < 0) endProcess("no timer for the workers: ", std::strerror(errno));
  return timer;
}

}  // namespace

constinit thread_local WorkerPool::Worker* WorkerPool::currentWorker_ = nullptr;

void WorkerPool::ReadyTasks::push(Task& task) {
  List& list = lists_[task.level_];
  task.next_ = nullptr;
  if (list.tail != nullptr) {
    list.tail->next_ = &task;
  } else {
    list.head = &task;
    occupied_[task.level_ / 64] |= std::uint64_t{1} << (task.level_ % 64);
  }
  list.tail = &task;
}

WorkerPool::Task& WorkerPool::ReadyTasks::pop(std::size_t level) {
  List& list = lists_[level];
  Task& task = *list.head;
  list.head = task.next_;
  if (list.head == nullptr) {
    list.tail = nullptr;
    occupied_[level / 64] &= ~(std::uint64_t{1} << (level % 64));
  }
  return task;
}

WorkerPool::Task* WorkerPool::ReadyTasks::mostUrgent() const {
  for (std::size_t word = 0; word < occupied_.size(); ++word) {
    if (occupied_[word] == 0) continue;
    return lists_[word * 64 + static_cast<std::size_t>(std::countr_zero(occupied_[word]))].head;
  }
  return nullptr;
}

WorkerPool::Task* WorkerPool::ReadyTasks::oldest() const {
  Task* oldest = nullptr;
  for (std::size_t word = 0; word < occupied_.size(); ++word) {
    for (std::uint64_t rest = occupied_[word]; rest != 0; rest &= rest - 1) {
      Task* head = lists_[word * 64 + static_cast<std::size_t>(std::countr_zero(rest))].head;
      if (oldest == nullptr || head->sequence_ < oldest->sequence_) oldest = head;
    }
  }
  return oldest;
}

WorkerPool& WorkerPool::shared() {
  static WorkerPool& pool = *new WorkerPool;
  return pool;
}

WorkerPool::WorkerPool()
    : processors_(usableProcessors()),
      boundedLimit_(
          std::clamp(kBoundedWorkersPerProcessor * processors_, kBoundedWorkers, kMaximumBoundedWorkers)),
      monitorTimer_(makeTimer()),
      target_(processors_) {
  if (!startProcessThread("qm.monitor", [this] { monitorMain(); }))
    endProcess("no thread for the workers' monitor");
}

void WorkerPool::submit(Task& task, Wake wake) {
  requireNoForkedChild("a queue was used");
  Followup followup;
  {
    const MutexLock lock(mutex_);
    push(task);
    Worker* const self = currentWorker_;
    const bool wakes = active_ < target_ && canActivate() && (!task.bounded_ || boundedAllowed());
    const bool defers =
        wakes && wake == Wake::mayBeDeferred && self != nullptr && !self->owesWake && !self->isAside;
    if (defers) self->owesWake = true;
    if (wakes && !defers) {
      activate(followup);
    } else {
      followup.armMonitor = wantsMonitor();
    }
  }
  followUp(followup);
}

void WorkerPool::resubmit(Task& task) {
  willBlock();
  const MutexLock lock(mutex_);
  push(task);
}

void WorkerPool::willBlock() {
  Worker* const self = currentWorker_;
  if (self == nullptr || !self->owesWake) return;
  self->owesWake = false;
  Followup followup;
  {
    const MutexLock lock(mutex_);
    if (oldestRunnable() == nullptr) return;
    if (active_ < target_ && canActivate()) activate(followup);
  }
  followUp(followup);
}

void WorkerPool::stepAside() {
  Worker* const self = currentWorker_;
  if (self == nullptr) return;
  self->owesWake = false;
  Followup followup;
  {
    const MutexLock lock(mutex_);
    if (self->isAside) return;
    if (aside_ == kMaximumAside) return waitingForAside_.push_back(self);
    putAside(*self, followup);
  }
  followUp(followup);
}

void WorkerPool::stepBack() {
  Worker* const self = currentWorker_;
  if (self == nullptr) return;
  Followup followup;
  {
    const MutexLock lock(mutex_);
    if (!self->isAside) {
      std::erase(waitingForAside_, self);
      return;
    }
    takeBack(*self, followup);
  }
  followUp(followup);
}

void WorkerPool::takeBack(Worker& worker, Followup& followup) {
  worker.isAside = false;
  --aside_;
  ++active_;
  if (worker.runsBounded) ++runningBounded_;
  if (waitingForAside_.empty()) {
    followup.armMonitor = wantsMonitor();  // one more may be put aside
    return;
  }
  putAside(*waitingForAside_.front(), followup);
  waitingForAside_.pop_front();
}

void WorkerPool::putAside(Worker& worker, Followup& followup) {
  worker.isAside = true;
  ++aside_;
  --active_;
  if (worker.runsBounded) --runningBounded_;
  if (oldestRunnable() != nullptr && active_ < target_ && canActivate())
    activate(followup);
  else
    followup.armMonitor = wantsMonitor();
}

std::size_t WorkerPool::asideLimit() {
  return kMaximumAside;
}

WorkerPool::Statistics WorkerPool::statistics() const {
  const MutexLock lock(mutex_);
  return {workers_, idle_.size(), runningBounded_, waiting_.load(std::memory_order_relaxed), monitorArmed_};
}

void WorkerPool::setIdleTime(std::chrono::milliseconds time) {
  const MutexLock lock(mutex_);
  idleTime_ = time;
  for (Worker* const worker : idle_) worker->wakeUp.notifyOne();  // to look at the time again
}

void WorkerPool::setTimeBetweenLooks(std::chrono::milliseconds time) {
  const MutexLock lock(mutex_);
  ticksBetweenLooks_ = static_cast<std::uint64_t>(time / kTick);
}

void WorkerPool::push(Task& task) {
  task.sequence_ = nextSequence_++;
  task.tick_ = tick_;
  (task.bounded_ ? bounded_ : unbounded_).push(task);
  waiting_.store(waiting_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

WorkerPool::Task* WorkerPool::takeNext() {
  const bool oldestFirst = ++picks_ % kPicksPerOldest == 0;
  Task* candidate = oldestFirst ? unbounded_.oldest() : unbounded_.mostUrgent();
  if (boundedAllowed()) {
    Task* const other = oldestFirst ? bounded_.oldest() : bounded_.mostUrgent();
    const auto rank = [oldestFirst](const Task& task) {
      return std::pair(oldestFirst ? 0 : task.level_, task.sequence_);
    };
    if (other != nullptr && (candidate == nullptr || rank(*other) < rank(*candidate))) candidate = other;
  }
  if (candidate == nullptr) return nullptr;
  waiting_.store(waiting_.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
  return &(candidate->bounded_ ? bounded_ : unbounded_).pop(candidate->level_);
}

WorkerPool::Task* WorkerPool::oldestRunnable() const {
  Task* const unbounded = unbounded_.oldest();
  Task* const bounded = boundedAllowed() ? bounded_.oldest() : nullptr;
  if (unbounded == nullptr || bounded == nullptr) return unbounded != nullptr ? unbounded : bounded;
  return unbounded->sequence_ < bounded->sequence_ ? unbounded : bounded;
}

bool WorkerPool::canActivate() const {
  return !idle_.empty() || workers_ < kMaximumWorkers;
}

void WorkerPool::activate(Followup& followup) {
  ++active_;
  if (idle_.empty()) {
    ++workers_;
    followup.startWorker = true;
    return;
  }
  followup.wakeWorker = idle_.back();
  idle_.pop_back();
  followup.wakeWorker->woken = true;
}

bool WorkerPool::wantsMonitor() {
  if (monitorArmed_ || (unbounded_.empty() && bounded_.empty())) return false;
  monitorArmed_ = true;
  return true;
}

void WorkerPool::followUp(Followup followup) {
  if (followup.wakeWorker != nullptr) followup.wakeWorker->wakeUp.notifyOne();
  if (followup.startWorker) startWorker();
  if (followup.armMonitor) armMonitor();
}

void WorkerPool::startWorker() {
  if (startProcessThread("qm.worker", [this] { workerMain(); })) return;
  // The other workers, and the monitor's next attempt, take care of the work.
  bool arm = false;
  {
    const MutexLock lock(mutex_);
    --workers_;
    --active_;
    arm = wantsMonitor();
  }
  if (arm) armMonitor();
}

WorkerPool::Worker& WorkerPool::takeSeat() {
  if (freeSeats_.empty()) freeSeats_.push_back(seats_.emplace_back(std::make_unique<Worker>()).get());
  Worker& seat = *freeSeats_.back();
  freeSeats_.pop_back();
  return seat;
}

void WorkerPool::workerMain() {
  const ::pid_t thread = ::gettid();
  MutexLock lock(mutex_);
  Worker& self = takeSeat();
  currentWorker_ = &self;
  self.thread = thread;
  self.sleep.reset();  // another thread's
  threads_.push_back(thread);
  for (;;) {
    self.owesWake = false;
    Task* const task = takeNext();
    if (task == nullptr) {
      if (waitForWork(self, lock)) continue;
      std::erase(threads_, thread);
      freeSeats_.push_back(&self);
      currentWorker_ = nullptr;
      return;
    }
    self.runsBounded = task->bounded_;
    self.since = tick_;
    if (self.runsBounded) ++runningBounded_;
    const bool arm = wantsMonitor();
    lock.unlock();
    if (arm) armMonitor();
    task->run();
    lock.lock();
    // Before the lock is given up again: the monitor puts aside whoever is at a bounded task.
    if (self.runsBounded && !self.isAside) --runningBounded_;
    self.runsBounded = false;
    if (!self.isAside) continue;
    Followup followup;
    takeBack(self, followup);
    lock.unlock();
    followUp(followup);
    lock.lock();
  }
}

bool WorkerPool::waitForWork(Worker& self, MutexLock& lock) {
  --active_;
  idle_.push_back(&self);
  const auto since = std::chrono::steady_clock::now();
  while (!self.woken) {
    const auto deadline = since + idleTime_;
    if (self.wakeUp.waitUntil(lock, deadline) || self.woken) continue;
    std::erase(idle_, &self);
    --workers_;
    target_ = std::max(processors_, std::min(target_, workers_));
    return false;
  }
  self.woken = false;
  return true;
}

void WorkerPool::monitorMain() {
  for (;;) {
    std::uint64_t expirations = 0;
    if (::read(monitorTimer_, &expirations, sizeof expirations) < 0) {
      if (errno == EINTR) continue;
      endProcess("the workers' timer failed: ", std::strerror(errno));
    }
    MutexLock lock(mutex_);
    ++tick_;
    if (needsCount()) {
      const std::vector<::pid_t> threads = threads_;
      lock.unlock();
      const std::size_t runnable = countRunnable(threads);
      lock.lock();
      runnable_ = runnable;
      countedAt_ = tick_;
    }
    Followup relief;
    if (Worker* const worker = nextToBeLookedAt()) {
      const ::pid_t thread = worker->thread;
      const std::uint64_t since = worker->since;
      lock.unlock();
      const std::optional<std::uint64_t> sleep = currentSleep(thread);
      lock.lock();
      if (worker == nextToBeLookedAt() && worker->since == since) relief = relieve(*worker, sleep);
    }
    const Followup followup = monitorTick();
    lock.unlock();
    followUp(relief);
    followUp(followup);
  }
}

WorkerPool::Followup WorkerPool::relieve(Worker& worker, std::optional<std::uint64_t> sleep) {
  Followup followup;
  if (sleep && sleep == worker.sleep) putAside(worker, followup);
  worker.sleep = sleep;
  worker.since = tick_;
  return followup;
}

// Nobody while the bounded tasks that wait have a worker to come, or no more may be put aside.
WorkerPool::Worker* WorkerPool::nextToBeLookedAt() const {
  if (bounded_.empty() || boundedAllowed() || aside_ == kMaximumAside) return nullptr;
  Worker* longest = nullptr;
  for (const auto& seat : seats_) {
    const bool isCandidate = seat->runsBounded && !seat->isAside && tick_ - seat->since >= ticksBetweenLooks_;
    if (isCandidate && (longest == nullptr || seat->since < longest->since)) longest = seat.get();
  }
  return longest;
}

// Whether a waiting task may have a worker beyond the target depends on what the others do.
bool WorkerPool::needsCount() const {
  const Task* const oldest = oldestRunnable();
  if (oldest == nullptr || active_ < target_ || tick_ - oldest->tick_ < kTicksBeforeGrowth) return false;
  return !saturated() || tick_ - countedAt_ >= kTicksBetweenCountsWhenSaturated;
}

// No further than it matters.
std::size_t WorkerPool::countRunnable(const std::vector<::pid_t>& threads) const {
  std::size_t runnable = 0;
  for (const ::pid_t thread : threads) {
    if (isRunnable(thread) && ++runnable == kSaturatedWorkersPerProcessor * processors_) break;
  }
  return runnable;
}

void WorkerPool::armMonitor() const {
  ::itimerspec when{};
  when.it_value.tv_nsec = kTick.count();
  ::timerfd_settime(monitorTimer_, 0, &when, nullptr);
}

WorkerPool::Followup WorkerPool::monitorTick() {
  const Task* const oldest = oldestRunnable();
  if (oldest == nullptr) {
    monitorArmed_ = !bounded_.empty() && aside_ < kMaximumAside;
    runnable_ = 0;
    return {.armMonitor = monitorArmed_};
  }
  Followup followup{.armMonitor = true};
  if (!canActivate()) return followup;
  if (active_ < target_) {
    if (tick_ - oldest->tick_ >= kTicksBeforeDeferredWake) activate(followup);
  } else if (shouldGrow(*oldest)) {
    activate(followup);
    lastGrowth_ = tick_;
    target_ = saturated() ? processors_ : active_;
  }
  return followup;
}

bool WorkerPool::shouldGrow(const Task& oldest) const {
  const std::uint64_t age = tick_ - oldest.tick_;
  if (!saturated() || !oldest.bounded_) return age >= kTicksBeforeGrowth;
  return age >= kTicksBeforeSaturatedGrowth && tick_ - lastGrowth_ >= kTicksBeforeSaturatedGrowth &&
         runnable_ < kSaturatedWorkersPerProcessor * processors_;
}

}  // namespace qm
