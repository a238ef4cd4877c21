// A mutex whose rules clang checks at compile time (-Wthread-safety): a member marked QM_GUARDED_BY may only
// be touched with its mutex held, a function marked QM_REQUIRES only be called with it. Nothing at run time
// but std::mutex.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define QM_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define QM_THREAD_ATTRIBUTE(attribute)
#endif
#define QM_GUARDED_BY(mutex) QM_THREAD_ATTRIBUTE(guarded_by(mutex))
#define QM_REQUIRES(mutex) QM_THREAD_ATTRIBUTE(requires_capability(mutex))

namespace qm {

class QM_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

// Holds the mutex while it lives, except between unlock() and lock().
class QM_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) QM_THREAD_ATTRIBUTE(acquire_capability(mutex)) : lock_(mutex.mutex_) {}
  ~MutexLock() QM_THREAD_ATTRIBUTE(release_capability()) {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() QM_THREAD_ATTRIBUTE(acquire_capability()) { lock_.lock(); }
  void unlock() QM_THREAD_ATTRIBUTE(release_capability()) { lock_.unlock(); }

 private:
  friend class Condition;
  std::unique_lock<std::mutex> lock_;
};

// Waits with the lock given up meanwhile. May wake up for no reason: check in a loop.
class Condition {
 public:
  void wait(MutexLock& lock) { condition_.wait(lock.lock_); }
  // False when the deadline has passed.
  bool waitUntil(MutexLock& lock, std::chrono::steady_clock::time_point deadline) {
    return condition_.wait_until(lock.lock_, deadline) == std::cv_status::no_timeout;
  }
  void notifyOne() { condition_.notify_one(); }
  void notifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace qm
