#include "platform/linux/event_loop.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <memory>
#include <thread>

#include "platform/linux/xpc_socket.hpp"

namespace qm {
namespace {

using namespace std::chrono_literals;

template <class Value>
testing::AssertionResult arrives(const std::future<Value>& future) {
  if (future.wait_for(60s) == std::future_status::ready) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "did not happen";
}

TEST(EventLoop, AHangUpIsReportedOnceAlsoWithoutInterest) {
  auto sockets = xpc::makeSocketPair(SOCK_STREAM);
  EventLoop& loop = EventLoop::shared();
  std::promise<void> hungUp;
  const EventSource source = loop.watch(sockets->first.get(), {}, [&](EventReadiness ready) {
    EXPECT_TRUE(ready.hangUp && !ready.readable);
    hungUp.set_value();  // a second time would throw
  });
  ASSERT_EQ(::write(sockets->second.get(), "x", 1), 1);
  sockets->second.reset();
  ASSERT_TRUE(arrives(hungUp.get_future()));
  std::promise<void> later;
  loop.runAfter(5ms, [&] { later.set_value(); });
  EXPECT_TRUE(arrives(later.get_future()));
}

TEST(EventLoop, AfterCancelNoHandlerRunsAndItsCapturesAreGone) {
  for (int round = 0; round < 200; ++round) {
    auto sockets = xpc::makeSocketPair(SOCK_STREAM);
    std::promise<void> called;
    std::atomic<bool> first = true;
    std::atomic<bool> cancelled = false;
    const auto captured = std::make_shared<int>();
    const EventSource source =
        EventLoop::shared().watch(sockets->first.get(), {.readable = true}, [&, captured](EventReadiness) {
          if (first.exchange(false)) called.set_value();
          EXPECT_FALSE(cancelled);
        });
    ASSERT_EQ(::write(sockets->second.get(), "x", 1), 1);  // stays unread: the handler runs all the time
    ASSERT_TRUE(arrives(called.get_future()));
    std::thread other([&] { source.cancel(); });
    source.cancel();
    cancelled = true;
    other.join();
    EXPECT_EQ(captured.use_count(), 1);
  }
}

TEST(EventLoop, AHandlerMayCancelItself) {
  const auto sockets = xpc::makeSocketPair(SOCK_STREAM);
  const auto captured = std::make_shared<int>();
  EventSource source;
  std::promise<void> cancelled;
  source = EventLoop::shared().watch(sockets->first.get(), {}, [&, captured](EventReadiness) {
    source.cancel();
    EXPECT_EQ(captured.use_count(), 2);  // still here as long as it runs
    cancelled.set_value();
  });
  source.setInterest({.writable = true});
  ASSERT_TRUE(arrives(cancelled.get_future()));
  source.cancel();
  EXPECT_EQ(captured.use_count(), 1);
}

TEST(EventLoop, RefusesWhatCannotBeWatched) {
  const FileDescriptor file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(EventLoop::shared().watch(file.get(), {.readable = true}, [](EventReadiness) {}));
  EXPECT_EQ(errno, EPERM);
}

}  // namespace
}  // namespace qm
