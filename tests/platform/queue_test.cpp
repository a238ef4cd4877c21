#include "platform/queue.hpp"

#include <sys/resource.h>

#include <semaphore>

#include "platform/common/turns.hpp"
#include "platform/linux/process_threads.hpp"
#include "platform/linux/worker_pool.hpp"
#include "platform/long_work.hpp"
#include "support/blocked_items.hpp"
#include "support/testing.hpp"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

TEST(SerialQueue, RunsItemsInOrderOneAtATimeWhileManySubmit) {
  constexpr int kItems = 500;
  const Queue serial = Queue::serial("test.serial");
  const Queue concurrent = Queue::concurrent("test.submitters", QualityOfService::utility);
  std::array<std::vector<int>, 4> seen;  // no lock: the queue excludes
  int inside = 0;
  std::latch all(4 * (kItems * 2 + 1));
  const auto submitAll = [&](std::vector<int>& mine) {
    for (int item = 0; item < kItems; ++item) {
      const auto work = [&, item] {
        EXPECT_EQ(++inside, 1);
        EXPECT_TRUE(serial.isCurrent());
        mine.push_back(item);
        --inside;
        all.count_down();
      };
      item % 3 == 0 ? serial.sync(work) : serial.async(work);
      serial.after(std::chrono::microseconds(item % 7), [&] { all.count_down(); });
    }
    all.count_down();
  };
  for (auto& mine : seen) concurrent.async([&] { submitAll(mine); });
  all.wait();
  for (const auto& items : seen) {
    EXPECT_EQ(items.size(), kItems);
    EXPECT_TRUE(std::is_sorted(items.begin(), items.end()));
  }
}

TEST(SerialQueue, LivesAsLongAsItsItemsAndReleasesThem) {
  const auto captured = std::make_shared<int>(7);
  std::latch gate{1};
  std::latch ran{1};
  {
    const Queue queue = Queue::serial("test.short-lived");
    queue.async([&] { gate.wait(); });
    queue.async([&, captured] { ran.count_down(); });
  }
  gate.count_down();
  ran.wait();
  EXPECT_TRUE(eventually([&] { return captured.use_count() == 1; }));
}

TEST(SerialQueue, WhatAnItemHandsOnGetsAWorkerBeforeTheNextItemRuns) {
  WorkerPool& pool = WorkerPool::shared();
  if (pool.processors() < 2) GTEST_SKIP() << "one worker has to do";
  const Queue serial = Queue::serial("test.serial");
  WorkerPool::Statistics seen;
  std::latch gate{1};
  std::latch done(2);
  serial.async([&] { gate.wait(); });
  serial.async([&] { Queue::global().async([&] { done.count_down(); }); });
  serial.async([&] {
    seen = pool.statistics();
    done.count_down();
  });
  gate.count_down();
  done.wait();
  EXPECT_TRUE(seen.waiting == 0 || seen.workers - seen.idle >= 2);
}

TEST(SerialQueueDeathTest, SyncFromWithinItselfEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const Queue queue = Queue::serial("test.recursive");
  EXPECT_DEATH(queue.sync([&] { Queue::serial("test.other").sync([&] { queue.sync([] {}); }); }),
               "sync from within its own serial queue.*test.recursive");
}

TEST(ConcurrentQueue, StartsMoreWorkWhileItemsBlockAndSerialQueuesGoOnAtTheBound) {
  WorkerPool::shared().setTimeBetweenLooks(1h);  // what is blocked keeps its worker
  const Queue queue = Queue::concurrent("test.slow-disk");
  std::latch ranBeyondTheBound{1};
  {
    const BlockedItems blocked(queue, boundOfConcurrentItems());
    queue.async([&] { ranBeyondTheBound.count_down(); });
    const Queue serial = Queue::serial("test.serial");
    std::latch served(5);
    for (int round = 0; round < 5; ++round) serial.after(1ms * round, [&] { served.count_down(); });
    served.wait();
    EXPECT_EQ(WorkerPool::shared().statistics().waiting, 1U) << "the concurrent item, all the while";
  }
  ranBeyondTheBound.wait();
}

TEST(ConcurrentQueue, ItemsThatSleepTooLongDoNotHoldUpTheOthers) {
  WorkerPool& pool = WorkerPool::shared();
  pool.setTimeBetweenLooks(5ms);
  for (int round = 0; round < 2; ++round) {  // the second one has all places again
    const Queue queue = Queue::concurrent("test.hung-disk");
    auto putAsideFirst = std::make_unique<BlockedItems>(queue, 1);
    const BlockedItems asMany(queue, boundOfConcurrentItems() - 1);
    const BlockedItems moreAside(queue, static_cast<int>(WorkerPool::asideLimit()));
    std::latch waitingItem{1};
    queue.async([&] { waitingItem.count_down(); });
    std::latch serialItem{1};
    Queue::serial("test.serial").async([&] { serialItem.count_down(); });
    serialItem.wait();
    EXPECT_EQ(pool.statistics().runningBounded, pool.boundedLimit());
    EXPECT_EQ(pool.statistics().waiting, 1U);
    EXPECT_TRUE(eventually([&] { return !pool.statistics().monitorArmed; })) << "nothing to look for";
    putAsideFirst.reset();
    waitingItem.wait();
  }
  pool.setTimeBetweenLooks(1s);
  EXPECT_TRUE(eventually([&] { return pool.statistics().runningBounded == 0; }));
}

TEST(ProcessThread, IsRunnableWhileNoDescriptorIsFree) {
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  const bool runnable = isRunnable(::gettid());
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_TRUE(runnable);
  EXPECT_FALSE(isRunnable(std::numeric_limits<::pid_t>::max())) << "there is none";
}

TEST(ProcessThread, IsInAnotherSleepOnceItWasAwake) {
  EXPECT_EQ(currentSleep(::gettid()), std::nullopt) << "it runs";
  std::promise<::pid_t> started;
  std::promise<void> awake;
  std::latch first{1}, second{1};
  std::jthread sleeper([&] {
    started.set_value(::gettid());
    first.wait();
    awake.set_value();
    second.wait();
  });
  const ::pid_t thread = started.get_future().get();
  std::optional<std::uint64_t> before;
  EXPECT_TRUE(eventually([&] { return (before = currentSleep(thread)).has_value(); }));
  first.count_down();
  awake.get_future().wait();
  EXPECT_TRUE(eventually([&] { return currentSleep(thread).value_or(*before) != *before; }));
  second.count_down();
}

// Long work that keeps its processor busy until it is told to end.
struct BusyWork {
  void operator()() {
    const LongWork turn;
    ++inside;
    begun.release();
    while (!end) std::this_thread::yield();
    --inside;
  }

  std::atomic<bool> end = false;
  std::atomic<int> inside = 0;
  std::counting_semaphore<> begun{0};
};

TEST(LongWork, LetsShortItemsPassAndRunsAsMuchAsThereAreProcessors) {
  const Queue queue = Queue::concurrent("test.long");
  const auto processors = static_cast<int>(WorkerPool::shared().processors());
  const int count = boundOfConcurrentItems() + processors;
  BusyWork work;
  std::latch done(count);
  for (int index = 0; index < count; ++index) {
    queue.async([&] {
      work();
      done.count_down();
    });
  }
  for (int index = 0; index < processors; ++index) work.begun.acquire();
  std::promise<void> shortItem;
  queue.async([&] { shortItem.set_value(); });
  shortItem.get_future().wait();
  EXPECT_EQ(work.inside, processors);
  work.end = true;
  done.wait();
  EXPECT_TRUE(eventually([] { return WorkerPool::shared().statistics().runningBounded == 0; }));
}

TEST(LongWork, PastItsBoundWaitsAndLosesNothing) {
  constexpr int kBeyond = 20;
  WorkerPool& pool = WorkerPool::shared();
  const int count = static_cast<int>(WorkerPool::asideLimit()) + boundOfConcurrentItems() + kBeyond;
  const Queue queue = Queue::concurrent("test.long");
  for (int round = 0; round < 2; ++round) {  // the second one has all places again
    std::counting_semaphore<> ends{0};
    std::latch done(count);
    for (int index = 0; index < count; ++index) {
      queue.async([&] {
        {
          const LongWork turn;
          while (!ends.try_acquire()) std::this_thread::yield();
        }
        done.count_down();
      });
    }
    std::promise<void> shortItem;
    auto shortItemRan = shortItem.get_future();
    queue.async([&] { shortItem.set_value(); });
    EXPECT_TRUE(eventually([&] { return pool.statistics().waiting == kBeyond + 1; }));
    std::promise<void> serialItem;
    Queue::serial("test.serial").async([&] { serialItem.set_value(); });
    serialItem.get_future().wait();
    EXPECT_EQ(pool.statistics().waiting, kBeyond + 1U) << "serial queues go on, concurrent ones do not";

    ends.release(kBeyond + 1);
    EXPECT_EQ(shortItemRan.wait_for(kPatience), std::future_status::ready) << "as soon as so many have ended";
    ends.release(count - kBeyond - 1);
    done.wait();
    EXPECT_TRUE(eventually([&] { return pool.statistics().runningBounded == 0; }));
  }
}

TEST(LongWork, DoesNotWaitForWhatIsAsleep) {
  std::latch allInside(static_cast<std::ptrdiff_t>(WorkerPool::shared().processors()) + 3);
  const auto work = [&] {
    const LongWork turn;
    allInside.arrive_and_wait();
  };
  std::vector<std::jthread> threads;
  for (std::size_t index = 0; index < WorkerPool::shared().processors() + 3; ++index)
    threads.emplace_back(work);
}

TEST(LongWork, DoesNotWaitForWhatIsAsleepBesideWorkThatAsksForMore) {
  constexpr Turns::ThreadID kAsleep = 1, kFirstBusy = 2, kLast = 6;
  Turns turns(kLast - 1, [](Turns::ThreadID thread) { return thread != kAsleep; });
  for (Turns::ThreadID thread = kAsleep; thread < kLast; ++thread) turns.take(thread);
  std::atomic<bool> end = false;
  std::vector<std::jthread> busy;
  for (Turns::ThreadID thread = kFirstBusy; thread < kLast; ++thread) {
    busy.emplace_back([&] {
      while (!end) EXPECT_FALSE(turns.decideSecond(false));
    });
  }
  std::atomic<bool> cameIn = false;
  std::jthread last([&] {
    turns.take(kLast);
    cameIn = true;
  });
  EXPECT_TRUE(eventually([&] { return cameIn.load(); }));
  end = true;
  busy.clear();
  turns.giveBack(kFirstBusy, false);  // it ends also when that failed
}

TEST(LongWork, UsesAnotherProcessorWhileNobodyWaits) {
  const auto processors = WorkerPool::shared().processors();
  if (processors < 2) GTEST_SKIP() << "there is no other processor";
  LongWork lone;
  EXPECT_TRUE(lone.mayUseAnotherProcessor());
  BusyWork work;
  std::vector<std::jthread> others;
  for (std::size_t index = 1; index < processors; ++index) others.emplace_back(std::ref(work));
  EXPECT_TRUE(eventually([&] { return !lone.mayUseAnotherProcessor(); }));
  for (std::size_t index = 1; index < processors; ++index) work.begun.acquire();
  EXPECT_FALSE(lone.mayUseAnotherProcessor());
  work.end = true;
  others.clear();
  EXPECT_TRUE(lone.mayUseAnotherProcessor());
}

TEST(QualityOfService, OrdersWhatWaits) {
  using enum QualityOfService;
  WorkerPool::shared().setTimeBetweenLooks(1h);  // what is blocked keeps its worker
  const BlockedItems taken(Queue::concurrent("test.blocked"), boundOfConcurrentItems() - 1);
  std::vector<std::string> order;  // no lock: there is one worker left
  std::latch done(6);
  const auto submit = [&](const char* name, QualityOfService qos, int relativePriority) {
    Queue::concurrent(name, qos, relativePriority).async([&, name] {
      order.emplace_back(name);
      done.count_down();
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
  done.wait();
  std::erase(order, "background");  // the oldest: now and then that one is taken first
  EXPECT_THAT(order, ElementsAre("interactive", "initiated", "unspecified", "standard, less", "utility"));
}

// Submits itself again until it is told to stop.
struct Stream {
  const Queue& queue;
  const std::atomic<bool>& stop;
  std::latch& ended;
  void operator()() const { stop ? ended.count_down() : queue.async(*this); }
};

TEST(QualityOfService, LowerClassesAreServedBesidesAnEndlessStreamOfUrgentWork) {
  const Queue urgent = Queue::concurrent("test.urgent", QualityOfService::userInteractive);
  const BlockedItems taken(Queue::concurrent("test.blocked"), boundOfConcurrentItems() - 1);
  std::atomic<bool> stop = false;
  std::latch ended(2);  // one runs, one waits
  for (int index = 0; index < 2; ++index) urgent.async(Stream{urgent, stop, ended});
  std::latch served{1};
  Queue::concurrent("test.humble", QualityOfService::background, -15).async([&] { served.count_down(); });
  served.wait();
  stop = true;
  ended.wait();
}

TEST(After, IsNeverEarlyAndKeepsTheOrderOfTheDeadlinesAmongManyThatArePending) {
  const Queue queue = Queue::serial("test.after");
  queue.after(std::chrono::nanoseconds::max(), [] { FAIL() << "forever has passed"; });
  for (int index = 0; index < 20'000; ++index) queue.after(24h, [] { FAIL() << "a day has passed"; });
  struct Item {
    std::chrono::milliseconds delay;
    Clock::time_point earliest{}, latest{};  // its deadline is made of a time during the call
  };
  std::array<Item, 4> items{{{60ms}, {20ms}, {40ms}, {-5ms}}};
  std::vector<const Item*> order;
  std::latch done(4);
  for (Item& item : items) {
    item.earliest = Clock::now() + item.delay;
    queue.after(item.delay, [&] {
      EXPECT_GE(Clock::now(), item.earliest);
      order.push_back(&item);
      done.count_down();
    });
    item.latest = Clock::now() + std::max(item.delay, 0ms);
  }
  done.wait();
  for (std::size_t i = 1; i < order.size(); ++i) EXPECT_LE(order[i - 1]->earliest, order[i]->latest) << i;
}

}  // namespace
