// Waits for the completions of a Skyvault client and counts them.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "reputation/backends/SVKSkyvaultServiceClientProtocol.hpp"
#include "reputation/backends/skyvault_wire.hpp"

namespace qm::test {

// Long enough that only a lost completion takes so long.
inline constexpr std::chrono::seconds kPatience{60};

struct Answer {
  std::shared_ptr<const SVKSkyvaultResponse> response;
  ErrorPtr error;

  // The code of an error, else nothing.
  std::optional<skyvault::ErrorCode> code() const {
    if (error == nullptr) return std::nullopt;
    return static_cast<skyvault::ErrorCode>(error->code());
  }
};

class Completions {
 public:
  SVKSkyvaultServiceClientProtocol::Completion make() {
    return
        [state = state_](const std::shared_ptr<const SVKSkyvaultResponse>& response, const ErrorPtr& error) {
          EXPECT_NE(response == nullptr, error == nullptr) << "a response or an error";
          const std::lock_guard lock(state->mutex);
          state->answers.push_back({response, error});
          state->changed.notify_all();
        };
  }
  // Blocks until so many have been called.
  std::vector<Answer> waitFor(std::size_t count) {
    std::unique_lock lock(state_->mutex);
    EXPECT_TRUE(state_->changed.wait_for(lock, kPatience, [&] { return state_->answers.size() >= count; }));
    return state_->answers;
  }
  Answer waitForOne() { return waitFor(1).at(0); }
  std::size_t count() const {
    const std::lock_guard lock(state_->mutex);
    return state_->answers.size();
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Answer> answers;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace qm::test
