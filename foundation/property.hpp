// Property<T>: an atomic property. A reader sees the old value or the new one, never a torn one; two accesses
// are not one step.
#pragma once

#include <mutex>
#include <utility>

namespace qm {

template <class T>
class Property {
 public:
  Property() = default;
  explicit Property(T value) : value_(std::move(value)) {}
  Property(const Property&) = delete;
  Property& operator=(const Property&) = delete;

  T get() const {
    std::lock_guard lock(mutex_);
    return value_;
  }
  // The old value is destroyed outside the lock.
  void set(T value) { exchange(std::move(value)); }
  // Sets, and returns the old value, in one step.
  T exchange(T value) {
    std::lock_guard lock(mutex_);
    std::swap(value_, value);
    return value;
  }

 private:
  mutable std::mutex mutex_;
  T value_{};
};

}  // namespace qm
