// Hands what callbacks get, on whichever thread, to the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace qm::test {

// Long enough for a loaded machine; a test that waits this long has failed.
inline constexpr std::chrono::seconds kPatience{60};

template <class T>
class Inbox {
 public:
  void put(T value) {
    const std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
    changed_.notify_all();
  }
  // Waits for the next one; nothing, and a failed test, when none comes.
  std::optional<T> take() {
    std::unique_lock lock(mutex_);
    if (!waitForCount(lock, 1)) return std::nullopt;
    std::optional<T> value = std::move(values_.front());
    values_.pop_front();
    return value;
  }
  // All that were put and not taken, once there are so many; never fewer than that.
  std::vector<T> waitFor(std::size_t count) const {
    std::unique_lock lock(mutex_);
    waitForCount(lock, count);
    std::vector<T> values(values_.begin(), values_.end());
    values.resize(std::max(values.size(), count));
    return values;
  }
  T waitForOne() const { return waitFor(1).front(); }
  std::size_t size() const {
    const std::lock_guard lock(mutex_);
    return values_.size();
  }

 private:
  bool waitForCount(std::unique_lock<std::mutex>& lock, std::size_t count) const {
    const bool came = changed_.wait_for(lock, kPatience, [&] { return values_.size() >= count; });
    EXPECT_TRUE(came) << values_.size() << " of " << count << " came";
    return came;
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::deque<T> values_;
};

}  // namespace qm::test
