// What a hop through a queue costs. The reference, in the same run, is what the system asks for the same
// thing: the way to a thread that sleeps on a condition variable and back, a lock that nobody else wants.
#include "platform/queue.hpp"

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace qm {
namespace {

// A turn that goes to and fro between two threads that sleep until it is theirs.
class Turn {
 public:
  void pass(int to) {
    const std::lock_guard lock(mutex_);
    turn_ = to;
    changed_.notify_all();
  }
  int await(int mine, int end) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return turn_ == mine || turn_ == end; });
    return turn_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int turn_ = 0;
};

constexpr int kMain = 0;
constexpr int kOther = 1;
constexpr int kEnd = 2;

void referenceWayToASleepingThreadAndBack(benchmark::State& state) {
  Turn turn;
  std::thread other([&] {
    while (turn.await(kOther, kEnd) != kEnd) turn.pass(kMain);
  });
  for (auto _ : state) {
    turn.pass(kOther);
    turn.await(kMain, kEnd);
  }
  turn.pass(kEnd);
  other.join();
}
BENCHMARK(referenceWayToASleepingThreadAndBack)->UseRealTime();

void asyncOnIdleWorkersAndBack(benchmark::State& state) {
  const Queue queue = Queue::serial("bench");
  Turn turn;
  for (auto _ : state) {
    turn.pass(kOther);
    queue.async([&] { turn.pass(kMain); });
    turn.await(kMain, kEnd);
  }
}
BENCHMARK(asyncOnIdleWorkersAndBack)->UseRealTime();

// As a request does: one queue's item is followed by another queue's, and that one answers.
void asyncThroughTwoQueuesAndBack(benchmark::State& state) {
  const Queue first = Queue::serial("bench.first");
  const Queue second = Queue::concurrent("bench.second");
  Turn turn;
  for (auto _ : state) {
    turn.pass(kOther);
    first.async([&] { second.async([&] { turn.pass(kMain); }); });
    turn.await(kMain, kEnd);
  }
}
BENCHMARK(asyncThroughTwoQueuesAndBack)->UseRealTime();

struct PingPong {
  Queue mine;
  Queue other;
  int left;
  Turn& turn;
  void operator()() const {
    if (left == 0) return turn.pass(kMain);
    other.async(PingPong{other, mine, left - 1, turn});
  }
};

void pingPongBetweenSerialQueues(benchmark::State& state) {
  constexpr int kHops = 1000;
  const Queue first = Queue::serial("bench.first");
  const Queue second = Queue::serial("bench.second");
  Turn turn;
  for (auto _ : state) {
    turn.pass(kOther);
    first.async(PingPong{first, second, kHops, turn});
    turn.await(kMain, kEnd);
  }
  state.SetItemsProcessed(state.iterations() * kHops);
}
BENCHMARK(pingPongBetweenSerialQueues)->UseRealTime();

void manyItemsOnConcurrentQueue(benchmark::State& state) {
  constexpr int kItems = 1000;
  const Queue queue = Queue::concurrent("bench");
  Turn turn;
  for (auto _ : state) {
    turn.pass(kOther);
    std::atomic<int> left = kItems;
    for (int item = 0; item < kItems; ++item) {
      queue.async([&] {
        if (--left == 0) turn.pass(kMain);
      });
    }
    turn.await(kMain, kEnd);
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(manyItemsOnConcurrentQueue)->UseRealTime();

void referenceUncontendedLock(benchmark::State& state) {
  std::mutex mutex;
  int value = 0;
  for (auto _ : state) {
    const std::lock_guard lock(mutex);
    benchmark::DoNotOptimize(++value);
  }
}
BENCHMARK(referenceUncontendedLock);

void syncUncontended(benchmark::State& state) {
  const Queue queue = Queue::serial("bench");
  int value = 0;
  for (auto _ : state) queue.sync([&] { benchmark::DoNotOptimize(++value); });
}
BENCHMARK(syncUncontended);

}  // namespace
}  // namespace qm
