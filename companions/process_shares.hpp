// How much of a kind of work each process may have in hand at a time, over all of its connections.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/audit_token.hpp"

namespace qm {

// A process, told apart from another that had or gets its id.
using ProcessInstance = std::pair<std::uint32_t, std::uint32_t>;
inline ProcessInstance processInstance(const AuditToken& token) {
  return {token.words[5], token.words[7]};
}

// Any thread.
class WorkShare : public std::enable_shared_from_this<WorkShare> {
 public:
  using Ticket = std::shared_ptr<const void>;

  static std::shared_ptr<WorkShare> create(std::size_t limit);

  // For one piece of work, until its last copy goes. Null when there are as many as may be.
  [[nodiscard]] Ticket take();
  // There would be none just now.
  bool isTaken() const { return taken_ >= limit_; }

 private:
  explicit WorkShare(std::size_t limit) : limit_(limit) {}

  const std::size_t limit_;
  std::atomic<std::size_t> taken_ = 0;
};

// Any thread.
class ProcessShares {
 public:
  explicit ProcessShares(std::size_t limitOfOneProcess) : limit_(limitOfOneProcess) {}

  // The same one for all who hold one of the process's, and as long as tickets of it are out: a process that
  // connects anew gets no other.
  std::shared_ptr<WorkShare> of(const AuditToken& peer);

 private:
  const std::size_t limit_;
  std::mutex mutex_;
  std::map<ProcessInstance, std::weak_ptr<WorkShare>> shares_;
};

}  // namespace qm
