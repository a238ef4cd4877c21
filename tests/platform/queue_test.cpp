#include "platform/queue.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/worker_pool.hpp"

namespace qm {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

// Opens once everybody it waits for has come.
class Gate {
 public:
  explicit Gate(int count = 1) : count_(count) {}
  void arrive() {
    const std::lock_guard lock(mutex_);
    if (--count_ == 0) opened_.notify_all();
  }
  // False when it has not opened in time.
  [[nodiscard]] bool wait() {
    std::unique_lock lock(mutex_);
    return opened_.wait_for(lock, 60s, [this] { return count_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  int count_;
};

bool waitUntil(const auto& condition) {
  for (const auto deadline = Clock::now() + 60s; !condition() && Clock::now() < deadline;)
    std::this_thread::yield();
  return condition();
}

// Items of a concurrent queue, all running, that block as long as it lives.
class BlockedItems {
 public:
  BlockedItems(const Queue& queue, int count) : running_(count), done_(count) {
    for (int index = 0; index < count; ++index) {
      queue.async([this] {
        running_.arrive();
        EXPECT_TRUE(end_.wait());
        done_.arrive();
      });
    }
    EXPECT_TRUE(running_.wait());
  }
  ~BlockedItems() {
    end_.arrive();
    EXPECT_TRUE(done_.wait());
  }

 private:
  Gate running_;
  Gate end_;
  Gate done_;
};

int boundOfConcurrentItems() {
  return static_cast<int>(WorkerPool::shared().boundedLimit());
}

TEST(SerialQueue, RunsItemsInOrderOneAtATimeWhileManySubmit) {
  constexpr int kItems = 500;
  const Queue serial = Queue::serial("test.serial");
  const Queue concurrent = Queue::concurrent("test.submitters", QualityOfService::utility);
  std::array<std::vector<int>, 4> seen;  // no lock: the queue excludes
  int inside = 0;
  Gate all(4 * (kItems * 2 + 1));
  const auto submitAll = [&](std::vector<int>& mine) {
    for (int item = 0; item < kItems; ++item) {
      const auto work = [&, item] {
        EXPECT_EQ(++inside, 1);
        EXPECT_TRUE(serial.isCurrent());
        mine.push_back(item);
        --inside;
        all.arrive();
      };
      item % 3 == 0 ? serial.sync(work) : serial.async(work);
      serial.after(std::chrono::microseconds(item % 7), [&] { all.arrive(); });
    }
    all.arrive();
  };
  for (auto& mine : seen) concurrent.async([&] { submitAll(mine); });
  ASSERT_TRUE(all.wait());
  for (const auto& items : seen) {
    EXPECT_EQ(items.size(), kItems);
    EXPECT_TRUE(std::is_sorted(items.begin(), items.end()));
  }
}

TEST(SerialQueue, LivesAsLongAsItsItemsAndReleasesThem) {
  const auto captured = std::make_shared<int>(7);
  Gate gate;
  Gate ran;
  {
    const Queue queue = Queue::serial("test.short-lived");
    queue.async([&] { EXPECT_TRUE(gate.wait()); });
    queue.async([&, captured] { ran.arrive(); });
  }
  gate.arrive();
  ASSERT_TRUE(ran.wait());
  EXPECT_TRUE(waitUntil([&] { return captured.use_count() == 1; }));
}

TEST(SerialQueueDeathTest, SyncFromWithinItselfEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const Queue queue = Queue::serial("test.recursive");
  EXPECT_DEATH(queue.sync([&] { Queue::serial("test.other").sync([&] { queue.sync([] {}); }); }),
               "sync from within its own serial queue.*test.recursive");
}

TEST(ConcurrentQueue, StartsMoreWorkWhileItemsBlockAndSerialQueuesGoOnAtTheBound) {
  const Queue queue = Queue::concurrent("test.slow-disk");
  Gate ranBeyondTheBound;
  {
    const BlockedItems blocked(queue, boundOfConcurrentItems());
    queue.async([&] { ranBeyondTheBound.arrive(); });
    const Queue serial = Queue::serial("test.serial");
    Gate served(5);
    for (int round = 0; round < 5; ++round) serial.after(1ms * round, [&] { served.arrive(); });
    EXPECT_TRUE(served.wait());
    EXPECT_EQ(WorkerPool::shared().statistics().waiting, 1U) << "the concurrent item, all the while";
  }
  EXPECT_TRUE(ranBeyondTheBound.wait());
}

TEST(QualityOfService, OrdersWhatWaits) {
  using enum QualityOfService;
  const BlockedItems taken(Queue::concurrent("test.blocked"), boundOfConcurrentItems() - 1);
  std::vector<std::string> order;  // no lock: there is one worker left
  Gate done(6);
  const auto submit = [&](const char* name, QualityOfService qos, int relativePriority) {
    Queue::concurrent(name, qos, relativePriority).async([&, name] {
      order.emplace_back(name);
      done.arrive();
    });
  };
  {
    const BlockedItems last(Queue::global(), 1);
    submit("background", background, 0);
    submit("utility", utility, 0);
    submit("unspecified", unspecified, 0);
    submit("standard, less", standard, -1);
    submit("initiated", userInitiated, -15);
    submit("interactive", userInteractive, 0);
  }
  ASSERT_TRUE(done.wait());
  std::erase(order, "background");  // the oldest: now and then that one is taken first
  EXPECT_THAT(order, ElementsAre("interactive", "initiated", "unspecified", "standard, less", "utility"));
}

// Submits itself again until it is told to stop.
struct Stream {
  const Queue& queue;
  const std::atomic<bool>& stop;
  Gate& ended;
  void operator()() const { stop ? ended.arrive() : queue.async(*this); }
};

TEST(QualityOfService, LowerClassesAreServedBesidesAnEndlessStreamOfUrgentWork) {
  const Queue urgent = Queue::concurrent("test.urgent", QualityOfService::userInteractive);
  const BlockedItems taken(Queue::concurrent("test.blocked"), boundOfConcurrentItems() - 1);
  std::atomic<bool> stop = false;
  Gate ended(2);  // one runs, one waits
  for (int index = 0; index < 2; ++index) urgent.async(Stream{urgent, stop, ended});
  Gate served;
  Queue::concurrent("test.humble", QualityOfService::background, -15).async([&] { served.arrive(); });
  EXPECT_TRUE(served.wait());
  stop = true;
  ASSERT_TRUE(ended.wait());
}

TEST(QualityOfService, AClassThatDoesNotExistLeavesTheQueueWithout) {
  const Queue queue = Queue::serial("a", static_cast<QualityOfService>(0xFFFF8000), -15);
  EXPECT_EQ(queue.qualityOfService(), QualityOfService::unspecified);
}

TEST(After, IsNeverEarlyAndKeepsTheOrderOfTheDeadlinesAmongManyThatArePending) {
  const Queue queue = Queue::serial("test.after");
  queue.after(std::chrono::nanoseconds::max(), [] { FAIL() << "forever has passed"; });
  for (int index = 0; index < 20'000; ++index) queue.after(24h, [] { FAIL() << "a day has passed"; });
  std::vector<std::chrono::milliseconds> order;
  Gate done(4);
  for (const auto delay : {60ms, 20ms, 40ms, -5ms}) {
    queue.after(delay, [&, delay, due = Clock::now() + delay] {
      EXPECT_GE(Clock::now(), due);
      order.push_back(delay);
      done.arrive();
    });
  }
  ASSERT_TRUE(done.wait());
  EXPECT_THAT(order, ElementsAre(-5ms, 20ms, 40ms, 60ms));
}

TEST(Workers, WorkBehindALongItemIsTakenByAnotherWorker) {
  const Queue queue = Queue::concurrent("test.long");
  Gate inner;
  Gate outer;
  queue.async([&] {
    queue.async([&] { inner.arrive(); });
    EXPECT_TRUE(inner.wait());  // blocks the worker that would have taken it
    outer.arrive();
  });
  EXPECT_TRUE(outer.wait());
}

}  // namespace
}  // namespace qm
