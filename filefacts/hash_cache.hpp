// The memory of a hash provider: hashes by path, at most a given number of them. Private to this folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "filefacts/QMRHashCacheEntry.hpp"

namespace qm {

// Any thread. When it is full the entry that was stored first goes.
class HashCache {
 public:
  explicit HashCache(std::size_t countLimit) : countLimit_(countLimit) {}

  // Null when there is none.
  std::shared_ptr<QMRHashCacheEntry> entryForPath(const std::string& path) const {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(path);
    return found == entries_.end() ? nullptr : found->second.entry;
  }

  // Replaces the path's entry, which then counts as stored now.
  void setEntry(const std::string& path, std::shared_ptr<QMRHashCacheEntry> entry) {
    const std::lock_guard lock(mutex_);
    remove(path);
    const std::uint64_t number = ++lastNumber_;
    entries_.emplace(path, Stored{std::move(entry), number});
    order_.emplace(number, path);
    if (entries_.size() > countLimit_) remove(std::string(order_.begin()->second));
  }

  void removeEntryForPath(const std::string& path) {
    const std::lock_guard lock(mutex_);
    remove(path);
  }

 private:
  struct Stored {
    std::shared_ptr<QMRHashCacheEntry> entry;
    std::uint64_t number = 0;
  };

  void remove(const std::string& path) {
    const auto found = entries_.find(path);
    if (found == entries_.end()) return;
    order_.erase(found->second.number);
    entries_.erase(found);
  }

  const std::size_t countLimit_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, Stored> entries_;
  std::map<std::uint64_t, std::string> order_;  // path by the number of its storing
  std::uint64_t lastNumber_ = 0;
};

}  // namespace qm
