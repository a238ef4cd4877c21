#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "client/reputation_client.hpp"
#include "bench/load/asker.hpp"

namespace qm::load {
namespace {

class LibraryAsker final : public Asker {
 public:
  LibraryAsker(std::size_t inFlight, std::vector<std::string> files)
      : files_(std::move(files)), client_({.requestsInFlight = inFlight}) {}

  void ask(std::uint64_t identifier, std::size_t file) override {
    client_.ask({.path = files_[file]}, [this, identifier](const ReputationAnswer& answer) {
      const std::lock_guard lock(mutex_);
      answers_.emplace_back(identifier, answer.answered());
      arrived_.notify_one();
    });
  }

  std::optional<std::uint64_t> awaitAnswer() override {
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [&] { return !answers_.empty(); });
    const auto [identifier, isAnswered] = answers_.front();
    answers_.pop_front();
    if (!isAnswered) throw std::runtime_error("an answer without a verdict");
    return identifier;
  }

 private:
  const std::vector<std::string> files_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::pair<std::uint64_t, bool>> answers_;
  ReputationClient client_;  // ends first: nothing is called any more
};

}  // namespace

std::unique_ptr<Asker> askThroughLibrary(std::size_t inFlight, std::vector<std::string> files) {
  return std::make_unique<LibraryAsker>(inFlight, std::move(files));
}

}  // namespace qm::load
