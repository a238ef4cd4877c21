#include "platform/queue.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <deque>
#include <utility>

#include "platform/common/thread_annotations.hpp"
#include "platform/linux/activity_context.hpp"
#include "platform/linux/event_loop.hpp"
#include "platform/linux/process_threads.hpp"
#include "platform/linux/serial_target.hpp"
#include "platform/linux/worker_pool.hpp"

namespace qm {
namespace {

constexpr int kLowestRelativePriority = -15;
constexpr std::size_t kLevelsPerClass = 16;
// Of a serial queue, in one go while other work waits: a batch of messages is cheaper at once than one by
// one.
constexpr int kItemsPerTurn = 16;

// The most urgent first. Work without a class is standard work.
constexpr std::array kClasses = {QualityOfService::userInteractive, QualityOfService::userInitiated,
                                 QualityOfService::standard, QualityOfService::utility,
                                 QualityOfService::background};
static_assert(kClasses.size() * kLevelsPerClass == WorkerPool::kLevels);

struct Priority {
  QualityOfService qos = QualityOfService::unspecified;
  int relative = 0;
};

// A class that does not exist, or a relative priority out of range, leaves the queue without either.
Priority validPriority(QualityOfService qos, int relative) {
  const bool known = std::find(kClasses.begin(), kClasses.end(), qos) != kClasses.end();
  if (!known || relative < kLowestRelativePriority || relative > 0) return {};
  return {qos, relative};
}

std::size_t level(const Priority& priority) {
  const auto qos = priority.qos == QualityOfService::unspecified ? QualityOfService::standard : priority.qos;
  const auto rank =
      static_cast<std::size_t>(std::find(kClasses.begin(), kClasses.end(), qos) - kClasses.begin());
  return rank * kLevelsPerClass + static_cast<std::size_t>(-priority.relative);
}

// Work on its way to a thread, with the activity it was made in.
struct Item {
  explicit Item(Block<void()> block) : work(std::move(block)), activity(currentActivity()) {}

  void run() const {
    const ActivityScope scope(activity);
    work();
  }

  Block<void()> work;
  ActivityContext activity;
};

}  // namespace

struct Queue::Core : std::enable_shared_from_this<Queue::Core> {
  Core(std::string name, bool isSerial, const Priority& validated)
      : label(std::move(name)), serial(isSerial), priority(validated) {}

  void enqueue(Item item);
  void runSync(void (*body)(void*), void* context);

  const std::string label;
  const bool serial;
  const Priority priority;

 private:
  // A caller of sync that waits for its turn; lives on that caller's stack.
  struct Waiter {
    Condition turn;
    bool granted = false;
  };
  struct Entry {
    Item item;
    Waiter* waiter = nullptr;  // instead of an item
  };

  // Brings a worker to a serial queue that has items; submitted at most once at a time.
  struct Activation final : WorkerPool::Task {
    Activation(std::size_t level, Core& core) : Task(level, false), queue(core) {}
    void run() noexcept override {
      const std::shared_ptr<Core> alive = std::move(keepAlive);
      queue.drain();
    }
    Core& queue;
    std::shared_ptr<Core> keepAlive;
  };

  void drain() noexcept;
  void takeTurn();
  void endTurn();
  void grant(Waiter& waiter) QM_REQUIRES(mutex_);
  void activate(WorkerPool::Wake wake);

  Mutex mutex_;
  std::deque<Entry> entries_ QM_GUARDED_BY(mutex_);
  // Some thread has the queue: the activation that was submitted, or the caller of a sync. Only that one runs
  // work and takes entries; it gives the queue to the next entry or gives it up.
  bool owned_ QM_GUARDED_BY(mutex_) = false;
  Activation activation_{level(priority), *this};
};

namespace {

// The queues whose work the calling thread is running, the innermost first.
struct Running {
  explicit Running(const Queue::Core& core);
  ~Running();
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  const Queue::Core& queue;
  Running* const outer;
};

thread_local Running* innermost = nullptr;

Running::Running(const Queue::Core& core) : queue(core), outer(std::exchange(innermost, this)) {}
Running::~Running() {
  innermost = outer;
}

bool isRunning(const Queue::Core& core) {
  for (const Running* running = innermost; running != nullptr; running = running->outer) {
    if (&running->queue == &core) return true;
  }
  return false;
}

// One item of a concurrent queue; deletes itself.
struct ConcurrentTask final : WorkerPool::Task {
  ConcurrentTask(std::shared_ptr<Queue::Core> core, Item work)
      : Task(level(core->priority), true), queue(std::move(core)), item(std::move(work)) {}

  void run() noexcept override {
    const std::unique_ptr<ConcurrentTask> self(this);
    const Running running(*queue);
    item.run();
    item.work = nullptr;  // its captures go while the queue is still the current one
  }

  const std::shared_ptr<Queue::Core> queue;
  Item item;
};

}  // namespace

void Queue::Core::enqueue(Item item) {
  requireNoForkedChild("a queue was used");
  if (!serial) {
    // Freed by its run.
    WorkerPool::shared().submit(*new ConcurrentTask(shared_from_this(), std::move(item)),
                                WorkerPool::Wake::mayBeDeferred);
    return;
  }
  {
    const MutexLock lock(mutex_);
    entries_.push_back({std::move(item)});
    if (std::exchange(owned_, true)) return;
  }
  activate(WorkerPool::Wake::mayBeDeferred);
}

void Queue::Core::activate(WorkerPool::Wake wake) {
  activation_.keepAlive = shared_from_this();
  WorkerPool::shared().submit(activation_, wake);
}

// On a worker that owns the queue. Some items when other work waits, else all there are.
void Queue::Core::drain() noexcept {
  const Running running(*this);
  for (int items = 0;; ++items) {
    const bool othersWait = items >= kItemsPerTurn && WorkerPool::shared().workWaits();
    MutexLock lock(mutex_);
    if (entries_.empty()) {
      owned_ = false;
      return;
    }
    if (entries_.front().waiter != nullptr) {
      grant(*entries_.front().waiter);
      return;
    }
    if (othersWait) break;
    const Item item = std::move(entries_.front().item);
    entries_.pop_front();
    lock.unlock();
    WorkerPool::shared().willBlock();  // the item before may have handed something on
    item.run();
  }
  activation_.keepAlive = shared_from_this();
  WorkerPool::shared().resubmit(activation_);
}

void Queue::Core::runSync(void (*body)(void*), void* context) {
  if (!serial) {
    const Running running(*this);
    body(context);
    return;
  }
  if (isRunning(*this))
    endProcess("sync from within its own serial queue would never return: ", label.c_str());
  takeTurn();
  struct Turn {
    Core& queue;
    ~Turn() { queue.endTurn(); }
  } const turn{*this};
  const Running running(*this);
  body(context);
}

void Queue::Core::takeTurn() {
  MutexLock lock(mutex_);
  if (!std::exchange(owned_, true)) return;
  requireNoForkedChild("a queue was used");  // whoever has the queue is in the parent
  Waiter waiter;
  entries_.push_back({Item(nullptr), &waiter});
  lock.unlock();
  WorkerPool::shared().willBlock();
  lock.lock();
  while (!waiter.granted) waiter.turn.wait(lock);
}

void Queue::Core::endTurn() {
  {
    const MutexLock lock(mutex_);
    if (entries_.empty()) {
      owned_ = false;
      return;
    }
    if (entries_.front().waiter != nullptr) {
      grant(*entries_.front().waiter);
      return;
    }
  }
  activate(WorkerPool::Wake::atOnce);
}

// The waiter may be gone once the lock is given up.
void Queue::Core::grant(Waiter& waiter) {
  entries_.pop_front();
  waiter.granted = true;
  waiter.turn.notifyOne();
}

Queue Queue::serial(std::string label, QualityOfService qos, int relativePriority) {
  return Queue(std::make_shared<Core>(std::move(label), true, validPriority(qos, relativePriority)));
}

Queue Queue::concurrent(std::string label, QualityOfService qos, int relativePriority) {
  return Queue(std::make_shared<Core>(std::move(label), false, validPriority(qos, relativePriority)));
}

Queue Queue::global() {
  // Never destroyed: workers may use it until the process has ended.
  static const Queue& queue = *new Queue(concurrent("com.quillmarsh.global"));
  return queue;
}

std::size_t Queue::blockedItemsBound() {
  return WorkerPool::shared().boundedLimit() + WorkerPool::asideLimit();
}

Queue serialTarget(const Queue& target) {
  if (target && target.core()->serial) return target;
  const Priority priority = target ? target.core()->priority : Priority();
  return Queue::serial(target ? target.label() : "com.quillmarsh.xpc.connection", priority.qos,
                       priority.relative);
}

const std::string& Queue::label() const {
  return core_->label;
}

QualityOfService Queue::qualityOfService() const {
  return core_->priority.qos;
}

void Queue::async(Block<void()> work) const {
  core_->enqueue(Item(std::move(work)));
}

void Queue::after(std::chrono::nanoseconds delay, Block<void()> work) const {
  if (delay <= std::chrono::nanoseconds::zero()) {
    async(std::move(work));
    return;
  }
  EventLoop::shared().runAfter(
      delay, [core = core_, item = Item(std::move(work))]() mutable { core->enqueue(std::move(item)); });
}

bool Queue::isCurrent() const {
  return core_ != nullptr && isRunning(*core_);
}

void Queue::syncBody(void (*body)(void*), void* context) const {
  const std::shared_ptr<Core> alive = core_;  // the work may release this handle
  alive->runSync(body, context);
}

void runMainLoop() {
  for (;;) ::pause();
}

}  // namespace qm
