// An answer that somebody waits for and that is given exactly once: by whoever was asked, by a deadline, or,
// when whoever was asked lets go of it, by itself.
#pragma once

#include <memory>
#include <mutex>
#include <utility>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "platform/queue.hpp"

namespace qm {

// Held by std::shared_ptr. Any thread.
template <class Response>
class AwaitedAnswer {
 public:
  using Completion = Block<void(const std::shared_ptr<const Response>& response, const ErrorPtr& error)>;

  // When all references go without an answer it is the error that `whenLost` makes; that and the completion
  // then run on the global queue.
  AwaitedAnswer(Completion completion, Block<ErrorPtr()> whenLost)
      : completion_(std::move(completion)), whenLost_(std::move(whenLost)) {}
  ~AwaitedAnswer() {
    if (!completion_) return;
    Queue::global().async([completion = std::move(completion_), whenLost = std::move(whenLost_)] {
      completion(nullptr, whenLost());
    });
  }
  AwaitedAnswer(const AwaitedAnswer&) = delete;
  AwaitedAnswer& operator=(const AwaitedAnswer&) = delete;

  // Does nothing from the second time on; what the completion and whenLost hold is let go of the first time.
  void give(const std::shared_ptr<const Response>& response, const ErrorPtr& error) {
    Completion completion;
    Block<ErrorPtr()> whenLost;
    {
      const std::lock_guard lock(mutex_);
      std::swap(completion, completion_);
      std::swap(whenLost, whenLost_);
    }
    if (completion) completion(response, error);
  }

 private:
  std::mutex mutex_;
  Completion completion_;
  Block<ErrorPtr()> whenLost_;
};

}  // namespace qm
