// The workers of the process. Queues hand their work to the pool as tasks; the pool decides which one runs
// next and how many threads there are.
//
// Which one: the lowest level first, among equals the oldest; every 16th time the oldest of all, so that no
// level starves.
//
// How many: up to the target (at first the number of processors) a worker is woken or started at once. The
// exception is a task that a worker submits while it runs another: the first of these wakes nobody, since the
// worker is expected to be free in a moment and to take it itself, which saves the way to another processor.
// A second one wakes another worker, and so does the end of the item when the worker goes on with a serial
// queue's next one. Whatever else keeps a task waiting is seen by the monitor, which looks once a
// millisecond while tasks wait that it can do something for and sleeps otherwise: it wakes workers up to the
// target; past it, it adds a worker when a task has waited for about 2 ms, and raises the target, so that the
// next task behind the same slow disk does not wait again. But when as many workers as there are processors
// are busy with them, only serial queues get another worker so soon; concurrent ones after 20 ms, while there
// are fewer than four busy workers for each processor.
//
// A worker that steps aside for long work does not count for any of this, and not against the bounds but the
// last: it is replaced at once when a task waits. No more than half of all workers step aside, so that serial
// queues go on beside any number of long works; who comes then does so as soon as one of those has ended. A
// worker whose bounded task hangs, in a call to a file system that does not answer perhaps, is put aside as
// well when bounded tasks wait past their bound: a second after the task began it is looked at, and then once
// a second; when it has slept from one look to the next without a break it hangs. A task that waits for a
// slow disk again and again does not.
//
// Bounds: bounded tasks (items of concurrent queues) run on at most 64 workers, or five for each processor if
// that is more, up to 128; the others (serial queues) beyond that as well, up to 512 workers in all: with as
// many aside as may be, 128 of them are left to serial queues, 64 of those to closings that hang
// (disposal_lanes.hpp). Past its bound a task waits. Workers that find nothing to do for the idle time end.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "platform/common/thread_annotations.hpp"

namespace qm {

class WorkerPool {
 public:
  static constexpr std::size_t kLevels = 80;

  class Task {
   public:
    explicit Task(std::size_t level, bool bounded) : level_(level), bounded_(bounded) {}
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    virtual ~Task() = default;

    // Called once for each submit, on a worker. The task may submit itself again or delete itself.
    virtual void run() noexcept = 0;

   private:
    friend class WorkerPool;
    const std::size_t level_;  // 0 is the most urgent
    const bool bounded_;
    Task* next_ = nullptr;
    std::uint64_t sequence_ = 0;
    std::uint64_t tick_ = 0;  // of the monitor, when it was submitted
  };

  enum class Wake : std::uint8_t {
    mayBeDeferred,  // the submitting worker is likely to be free soon
    atOnce,
  };

  struct Statistics {
    std::size_t workers = 0;
    std::size_t idle = 0;
    std::size_t runningBounded = 0;
    std::size_t waiting = 0;
    bool monitorArmed = false;
  };

  // Made at the first call. Never destroyed: workers run until the process has ended, also while it exits,
  // and must find their pool.
  static WorkerPool& shared();

  // The caller keeps the task alive until it runs.
  void submit(Task& task, Wake wake);
  // From within a task: submits it for a second run behind what waits; the calling worker takes the next task
  // itself.
  void resubmit(Task& task);
  // True when a task of any level waits. A hint, without a lock.
  bool workWaits() const { return waiting_.load(std::memory_order_relaxed) != 0; }
  // Before a worker blocks: whatever it has submitted and not woken anybody for gets a worker now.
  void willBlock();

  // Around long work of the calling thread, see platform/long_work.hpp; without effect when it is no worker.
  void stepAside();
  void stepBack();

  Statistics statistics() const;
  std::size_t processors() const { return processors_; }
  std::size_t boundedLimit() const { return boundedLimit_; }
  static std::size_t asideLimit();
  // How long a worker stays that finds nothing to do; five seconds at first.
  void setIdleTime(std::chrono::milliseconds time);
  // How long a bounded task runs before its worker is looked at, and from one look to the next; one second at
  // first.
  void setTimeBetweenLooks(std::chrono::milliseconds time);

 private:
  // What a worker thread is to the pool. Kept for the next one when the thread ends, so that a call to wake
  // it which comes late wakes another one in vain, or nobody.
  struct Worker {
    Condition wakeUp;
    bool woken = false;
    bool owesWake = false;  // has submitted a task and woken nobody for it
    bool runsBounded = false;
    bool isAside = false;
    ::pid_t thread = 0;
    std::uint64_t since = 0;             // the tick at which its task began, or was looked at
    std::optional<std::uint64_t> sleep;  // in which it was found then
  };

  // Tasks that wait, first in first out for each level.
  class ReadyTasks {
   public:
    void push(Task& task);
    Task& pop(std::size_t level);
    bool empty() const { return (occupied_[0] | occupied_[1]) == 0; }
    Task* mostUrgent() const;
    Task* oldest() const;

   private:
    struct List {
      Task* head = nullptr;
      Task* tail = nullptr;
    };
    std::array<List, kLevels> lists_{};
    std::array<std::uint64_t, 2> occupied_{};  // one bit for each level with tasks
  };

  // What is left to do once the lock is given up: a worker that is woken needs it at once.
  struct Followup {
    Worker* wakeWorker = nullptr;
    bool startWorker = false;
    bool armMonitor = false;
  };

  WorkerPool();
  ~WorkerPool() = default;

  void workerMain();
  Worker& takeSeat() QM_REQUIRES(mutex_);
  bool waitForWork(Worker& self, MutexLock& lock) QM_REQUIRES(mutex_);
  void push(Task& task) QM_REQUIRES(mutex_);
  Task* takeNext() QM_REQUIRES(mutex_);
  bool boundedAllowed() const QM_REQUIRES(mutex_) { return runningBounded_ < boundedLimit_; }
  // The task that waits longest among those that may run.
  Task* oldestRunnable() const QM_REQUIRES(mutex_);
  bool canActivate() const QM_REQUIRES(mutex_);
  // One more active worker: an idle one, or else a new one.
  void activate(Followup& followup) QM_REQUIRES(mutex_);
  void putAside(Worker& worker, Followup& followup) QM_REQUIRES(mutex_);
  void takeBack(Worker& worker, Followup& followup) QM_REQUIRES(mutex_);
  // True when the monitor is to be armed once the lock is given up.
  bool wantsMonitor() QM_REQUIRES(mutex_);
  void followUp(Followup followup);
  void startWorker();

  void monitorMain();
  void armMonitor() const;
  Followup relieve(Worker& worker, std::optional<std::uint64_t> sleep) QM_REQUIRES(mutex_);
  Worker* nextToBeLookedAt() const QM_REQUIRES(mutex_);
  Followup monitorTick() QM_REQUIRES(mutex_);
  bool needsCount() const QM_REQUIRES(mutex_);
  std::size_t countRunnable(const std::vector<::pid_t>& threads) const;
  bool saturated() const QM_REQUIRES(mutex_) { return runnable_ >= processors_; }
  bool shouldGrow(const Task& oldest) const QM_REQUIRES(mutex_);

  static constinit thread_local Worker* currentWorker_;  // what the calling thread is; null: none

  const std::size_t processors_;
  const std::size_t boundedLimit_;
  const int monitorTimer_;  // a timerfd, open as long as the pool: for good

  mutable Mutex mutex_;
  ReadyTasks bounded_ QM_GUARDED_BY(mutex_);
  ReadyTasks unbounded_ QM_GUARDED_BY(mutex_);
  std::atomic<std::size_t> waiting_ = 0;  // written with the mutex held
  std::uint64_t nextSequence_ QM_GUARDED_BY(mutex_) = 0;
  std::uint64_t picks_ QM_GUARDED_BY(mutex_) = 0;

  std::vector<std::unique_ptr<Worker>> seats_
      QM_GUARDED_BY(mutex_);  // as many as there ever were workers at once
  std::vector<Worker*> freeSeats_ QM_GUARDED_BY(mutex_);
  std::vector<Worker*> idle_ QM_GUARDED_BY(mutex_);  // the last one to become idle is woken first
  std::size_t workers_ QM_GUARDED_BY(mutex_) = 0;    // running, woken, starting and idle
  std::vector<::pid_t> threads_ QM_GUARDED_BY(mutex_);
  std::size_t active_ QM_GUARDED_BY(mutex_) = 0;  // the same without the idle
  std::size_t runningBounded_ QM_GUARDED_BY(mutex_) = 0;
  std::size_t aside_ QM_GUARDED_BY(mutex_) = 0;
  std::deque<Worker*> waitingForAside_ QM_GUARDED_BY(mutex_);  // at long work that began past the bound
  std::size_t target_ QM_GUARDED_BY(mutex_);
  std::chrono::milliseconds idleTime_ QM_GUARDED_BY(mutex_){5000};
  std::uint64_t ticksBetweenLooks_ QM_GUARDED_BY(mutex_) = 1000;

  bool monitorArmed_ QM_GUARDED_BY(mutex_) = false;
  std::uint64_t tick_ QM_GUARDED_BY(mutex_) = 0;
  std::uint64_t lastGrowth_ QM_GUARDED_BY(mutex_) = 0;
  std::size_t runnable_ QM_GUARDED_BY(mutex_) =
      0;  // workers on a processor or waiting for one, when last counted
  std::uint64_t countedAt_ QM_GUARDED_BY(mutex_) = 0;
};

}  // namespace qm
