// Queues of work. A serial queue runs one item at a time, in order; a concurrent one as many as there are
// workers, also when others are blocked in the kernel. Handles are cheap to copy; a queue lives as long as a
// handle or an item does. Every function may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "foundation/block.hpp"

namespace qm {

// The classes and values of sys/qos.h.
enum class QualityOfService : std::uint32_t {
  unspecified = 0x00,
  background = 0x09,
  utility = 0x11,
  standard = 0x15,
  userInitiated = 0x19,
  userInteractive = 0x21,
};

class Queue {
 public:
  // The relative priority is -15 to 0.
  static Queue serial(std::string label, QualityOfService qos = QualityOfService::unspecified,
                      int relativePriority = 0);
  static Queue concurrent(std::string label, QualityOfService qos = QualityOfService::unspecified,
                          int relativePriority = 0);
  // The process-wide concurrent queue that connections use when they are given none.
  static Queue global();
  // So many items of concurrent queues may block for good before all others wait for them.
  static std::size_t blockedItemsBound();

  Queue() = default;  // null: no queue
  explicit operator bool() const { return core_ != nullptr; }

  const std::string& label() const;
  QualityOfService qualityOfService() const;

  void async(Block<void()> work) const;
  // Runs the work on the calling thread once all items queued before it are done (serial), or at once
  // (concurrent), and returns when it has run. From within the same serial queue it would never return: that
  // is caught and ends the process. Takes any callable by reference: it is not copied.
  template <class Work>
  void sync(Work&& work) const {
    syncBody([](void* context) { (*static_cast<std::remove_reference_t<Work>*>(context))(); },
             const_cast<void*>(static_cast<const void*>(&work)));
  }
  // Never early; not cancellable. A delay of zero or less is an async.
  void after(std::chrono::nanoseconds delay, Block<void()> work) const;

  // True on the thread that is running an item of this queue.
  bool isCurrent() const;

  friend bool operator==(const Queue& a, const Queue& b) { return a.core_ == b.core_; }

  // For the platform layer.
  struct Core;
  explicit Queue(std::shared_ptr<Core> core) : core_(std::move(core)) {}
  const std::shared_ptr<Core>& core() const { return core_; }

 private:
  void syncBody(void (*body)(void*), void* context) const;

  std::shared_ptr<Core> core_;
};

// Parks the main thread for good; the queues do the work. Signals with their default action end the process.
[[noreturn]] void runMainLoop();

}  // namespace qm
