#include "platform/long_work.hpp"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <deque>
#include <vector>

#include "platform/linux/process_threads.hpp"
#include "platform/linux/thread_annotations.hpp"
#include "platform/linux/worker_pool.hpp"

namespace qm {
namespace {

// How long whoever is next waits before it looks whether those whose turn it is are asleep.
constexpr std::chrono::milliseconds kTimeBetweenLooks{20};

// Whose turn it is, for the whole process.
class Turns {
 public:
  static Turns& shared();

  void take();
  // With the second one, if there is one.
  void giveBack(bool second);
  // Takes or gives back a second turn; returns whether there is one now.
  bool decideSecond(bool hasSecond);

 private:
  bool oneIsFree() const QM_REQUIRES(mutex_) { return running_.size() + seconds_ < processors_; }
  bool someSleep() const QM_REQUIRES(mutex_);
  void callNext() QM_REQUIRES(mutex_);

  const std::size_t processors_ = WorkerPool::shared().processors();
  Mutex mutex_;
  std::vector<::pid_t> running_ QM_GUARDED_BY(mutex_);
  std::size_t seconds_ QM_GUARDED_BY(mutex_) = 0;
  std::deque<Condition*> waiting_ QM_GUARDED_BY(mutex_);  // each on the stack of its thread
};

Turns& Turns::shared() {
  // Never destroyed: workers run until the process has ended.
  static Turns& turns = *new Turns;
  return turns;
}

void Turns::take() {
  MutexLock lock(mutex_);
  Condition turn;
  waiting_.push_back(&turn);
  while (waiting_.front() != &turn) turn.wait(lock);
  while (!oneIsFree()) {
    if (!turn.waitUntil(lock, std::chrono::steady_clock::now() + kTimeBetweenLooks) && someSleep()) break;
  }
  waiting_.pop_front();
  running_.push_back(::gettid());
  callNext();
}

void Turns::giveBack(bool second) {
  const MutexLock lock(mutex_);
  running_.erase(std::find(running_.begin(), running_.end(), ::gettid()));
  if (second) --seconds_;
  callNext();
}

bool Turns::decideSecond(bool hasSecond) {
  const MutexLock lock(mutex_);
  if (hasSecond) --seconds_;
  if (waiting_.empty() && oneIsFree()) {
    ++seconds_;
    return true;
  }
  callNext();
  return false;
}

bool Turns::someSleep() const {
  const auto busy = static_cast<std::size_t>(std::count_if(running_.begin(), running_.end(), isRunnable));
  return busy + seconds_ < processors_;
}

void Turns::callNext() {
  if (!waiting_.empty()) waiting_.front()->notifyOne();
}

}  // namespace

LongWork::LongWork() {
  requireNoForkedChild("long work was begun");
  WorkerPool::shared().stepAside();
  Turns::shared().take();
}

LongWork::~LongWork() {
  Turns::shared().giveBack(usesAnotherProcessor_);
  WorkerPool::shared().stepBack();
}

bool LongWork::mayUseAnotherProcessor() {
  return usesAnotherProcessor_ = Turns::shared().decideSecond(usesAnotherProcessor_);
}

}  // namespace qm
