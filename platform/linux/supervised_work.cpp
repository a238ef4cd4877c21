#include "platform/linux/supervised_work.hpp"

#include <cerrno>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/linux/process_threads.hpp"

namespace qm {
namespace {

// The works that have not ended, by user. Never destroyed: a stuck thread may outlive main.
class Works {
 public:
  static Works& instance() {
    static Works& works = *new Works;
    return works;
  }

  // Waits for the user's turn. False when it does not come by the deadline, or too much is stuck.
  bool begin(std::uint32_t userID, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    for (;;) {
      Counts& user = byUser_[userID];
      if (user.stuck >= kMaximumStuckPerUser || stuck_ >= kMaximumStuck) break;
      if (user.running < kMaximumRunningPerUser) {
        ++user.running;
        return true;
      }
      if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) break;
    }
    forgetIfIdle(userID);
    return false;
  }
  void becameStuck(std::uint32_t userID) {
    {
      const std::lock_guard lock(mutex_);
      ++byUser_[userID].stuck;
      ++stuck_;
    }
    changed_.notify_all();
  }
  void end(std::uint32_t userID, bool wasStuck) {
    {
      const std::lock_guard lock(mutex_);
      Counts& user = byUser_[userID];
      --user.running;
      if (wasStuck) {
        --user.stuck;
        --stuck_;
      }
      forgetIfIdle(userID);
    }
    changed_.notify_all();
  }

 private:
  struct Counts {
    std::size_t running = 0;  // the stuck ones as well
    std::size_t stuck = 0;
  };

  void forgetIfIdle(std::uint32_t userID) {
    if (const auto found = byUser_.find(userID); found != byUser_.end() && found->second.running == 0)
      byUser_.erase(found);
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::uint32_t, Counts> byUser_;
  std::size_t stuck_ = 0;
};

// Shared by the caller and the thread; whoever is last frees it.
struct Job {
  std::mutex mutex;
  std::condition_variable finished;
  bool isFinished = false;   // under the mutex
  bool isAbandoned = false;  // under the mutex
  OSStatus status = kSecSuccess;
  std::atomic<bool> cancelled{false};
};

void run(const std::shared_ptr<Job>& job, std::uint32_t userID,
         const Block<OSStatus(const std::atomic<bool>& cancelled)>& work) {
  OSStatus status = kSecCSInternalError;
  try {
    status = work(job->cancelled);
  } catch (const std::bad_alloc&) {
    status = kSecErrnoBase + ENOMEM;
  }
  bool wasAbandoned = false;
  {
    const std::lock_guard lock(job->mutex);
    job->status = status;
    job->isFinished = true;
    wasAbandoned = job->isAbandoned;
  }
  job->finished.notify_one();
  Works::instance().end(userID, wasAbandoned);
}

}  // namespace

OSStatus runSupervised(std::uint32_t userID, std::chrono::nanoseconds deadline,
                       const Block<OSStatus(const std::atomic<bool>& cancelled)>& work) {
  if (!Works::instance().begin(userID, std::chrono::steady_clock::now() + deadline))
    return kSecErrnoBase + EAGAIN;
  const auto job = std::make_shared<Job>();
  const auto end = std::chrono::steady_clock::now() + deadline;
  std::thread thread = startThread("qm.supervised", [job, userID, work] { run(job, userID, work); });
  if (!thread.joinable()) {
    Works::instance().end(userID, false);
    return kSecErrnoBase + EAGAIN;
  }
  std::unique_lock lock(job->mutex);
  if (job->finished.wait_until(lock, end, [&] { return job->isFinished; })) {
    const OSStatus status = job->status;
    lock.unlock();
    // Libraries free what they keep for a thread as it ends: it must not be still at that when the process
    // exits.
    thread.join();
    return status;
  }
  // Counted under the job's lock, so that the thread takes away only what was added.
  Works::instance().becameStuck(userID);
  job->isAbandoned = true;
  job->cancelled.store(true, std::memory_order_relaxed);
  thread.detach();
  return kSecErrnoBase + ETIMEDOUT;
}

}  // namespace qm
