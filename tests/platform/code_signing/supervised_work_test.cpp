#include "platform/linux/supervised_work.hpp"

#include "support/testing.hpp"

namespace {

using Work = Block<OSStatus(const std::atomic<bool>&)>;

using namespace std::chrono_literals;

constexpr OSStatus kTimedOut = kSecErrnoBase + ETIMEDOUT;
constexpr OSStatus kRefused = kSecErrnoBase + EAGAIN;
constexpr auto kPlenty = 60s;

TEST(SupervisedWork, AUserWithTooMuchStuckWorkIsRefusedUntilItEndsAndOthersAreNot) {
  constexpr std::uint32_t kUser = 1000;
  const auto release = std::make_shared<std::promise<void>>();
  const auto ends = std::make_shared<Inbox<bool>>();
  const Work stuck = [ends, released = release->get_future().share()](const std::atomic<bool>& cancelled) {
    released.wait();
    ends->put(cancelled);
    return kSecSuccess;
  };
  const Work quick = [](const std::atomic<bool>&) { return kSecCSUnsigned; };
  // Each is left behind at its deadline and holds nobody up.
  for (std::size_t i = 0; i < kMaximumStuckPerUser; ++i) {
    EXPECT_EQ(runSupervised(kUser, kPlenty, quick), kSecCSUnsigned);
    EXPECT_EQ(runSupervised(kUser, 1ms, stuck), kTimedOut);
  }
  EXPECT_EQ(runSupervised(kUser, kPlenty, quick), kRefused);
  EXPECT_EQ(runSupervised(kUser + 1, kPlenty, quick), kSecCSUnsigned);
  release->set_value();
  for (std::size_t i = 0; i < kMaximumStuckPerUser; ++i) EXPECT_EQ(ends->take(), true);
  // The stuck work is counted off on its thread after it returned.
  while (runSupervised(kUser, kPlenty, quick) == kRefused) std::this_thread::yield();
}

}  // namespace
