// Blocks under names: each name's in the order in which they were added, told apart by identity. Any thread.
#pragma once

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace qm {

template <class Handler>
class HandlersByName {
 public:
  // A null block is ignored.
  void add(const std::string& name, Handler handler) {
    if (!handler) return;
    const std::lock_guard lock(mutex_);
    handlers_[name].push_back(std::move(handler));
  }
  // Once, when the block is there.
  void remove(const std::string& name, const Handler& handler) {
    const std::lock_guard lock(mutex_);
    const auto found = handlers_.find(name);
    if (found == handlers_.end()) return;
    std::vector<Handler>& list = found->second;
    if (const auto position = std::find(list.begin(), list.end(), handler); position != list.end())
      list.erase(position);
    if (list.empty()) handlers_.erase(found);
  }
  // As they are now; to be called without a lock.
  std::vector<Handler> forName(const std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto found = handlers_.find(name);
    return found == handlers_.end() ? std::vector<Handler>() : found->second;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::vector<Handler>> handlers_;
};

}  // namespace qm
