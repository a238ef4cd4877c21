// Clients that vanish at any moment, by the thousand: nothing of them may stay.

#include "road/installation.hpp"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif
constexpr int kShare = kIsSanitized ? 12 : 1;
constexpr std::size_t kKilledClients = kIsSanitized ? 20 : 70;
// How many vanish there; a request costs the agent the verification of the daemon.
constexpr std::pair<const char*, int> kStages[] = {
    {"connected", 1000}, {"welcomed", 1000}, {"halfway", 1000}, {"asked", 150}, {"answering", 150}};

// A number of /proc/PID/status; memory in KiB.
long statusNumber(pid_t process, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(name + ":")) return std::stol(line.substr(name.size() + 1));
  return -1;
}

class Churn : public RoadTest {
 protected:
  void SetUp() override {
    RoadTest::SetUp();
    file_ = file("file", "whatever it is");
    // What both keep for good is there after the first clients.
    visit(10 * kShare);
    descriptors_ = settledDescriptors();
    memory_ = statusNumber(daemon_->pid(), "VmRSS");
  }

  std::unique_ptr<ChildProcess> client(const std::string& stage, int count) const {
    const std::vector<std::string> command{installation_.program("wire_client"),
                                           "churn",
                                           installation_.daemonSocket,
                                           file_,
                                           stage,
                                           std::to_string(count)};
    return std::make_unique<ChildProcess>(command);
  }
  // That part of the clients, all stages at once.
  void visit(int part) const {
    std::vector<std::unique_ptr<ChildProcess>> clients;
    for (const auto& [stage, count] : kStages) clients.push_back(client(stage, count / part));
    for (const auto& process : clients) EXPECT_EQ(process->wait(), 0);
  }
  std::pair<std::size_t, std::size_t> heldDescriptors() const {
    return {openDescriptors(daemon_->pid()), openDescriptors(agent_->pid())};
  }
  // With the last client's answer given and its connections gone: the same for a good while.
  std::pair<std::size_t, std::size_t> settledDescriptors() const {
    std::pair<std::size_t, std::size_t> held;
    int same = 0;
    EXPECT_TRUE(eventually([&] {
      const auto now = heldDescriptors();
      same = std::exchange(held, now) == now ? same + 1 : 0;
      return same == 200;
    }));
    return held;
  }
  void expectNothingLeft() const {
    EXPECT_TRUE(eventually([&] { return heldDescriptors() == descriptors_; }))
        << "descriptors of the daemon and the agent: " << testing::PrintToString(descriptors_) << " before, "
        << testing::PrintToString(heldDescriptors()) << " after";
    EXPECT_LE(statusNumber(daemon_->pid(), "Threads"), 64 + 8);
    EXPECT_TRUE(kIsSanitized || statusNumber(daemon_->pid(), "VmRSS") <= memory_ + 32 * 1024);
    EXPECT_TRUE(ReputationPeer().ask(file_).value("reputationVerdict"));
  }

  fs::path file_;
  std::pair<std::size_t, std::size_t> descriptors_;
  long memory_ = 0;
};

TEST_F(Churn, ClientsThatVanishAtAnyStageLeaveNothing) {
  visit(kShare);
  expectNothingLeft();
}

TEST_F(Churn, ClientsThatAreKilledLeaveNothing) {
  for (std::size_t i = 0; i < kKilledClients; ++i) {
    // Each is somewhere else when it is hit.
    const auto process = client(kStages[i % std::size(kStages)].first, 1 << 20);
    std::this_thread::sleep_for(std::chrono::milliseconds(5 * (i / 5 % 7)));
  }
  expectNothingLeft();
}

}  // namespace
