#include "platform/linux/event_loop.hpp"

#include "platform/linux/xpc_socket.hpp"
#include "support/testing.hpp"

namespace {

using namespace std::chrono_literals;

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
  hungUp.get_future().wait();
  std::promise<void> later;
  loop.runAfter(5ms, [&] { later.set_value(); });
  later.get_future().wait();
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
    called.get_future().wait();
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
  cancelled.get_future().wait();
  source.cancel();
  EXPECT_EQ(captured.use_count(), 1);
}

TEST(EventLoop, RefusesWhatCannotBeWatched) {
  const FileDescriptor file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(EventLoop::shared().watch(file.get(), {.readable = true}, [](EventReadiness) {}));
  EXPECT_EQ(errno, EPERM);
}

}  // namespace
