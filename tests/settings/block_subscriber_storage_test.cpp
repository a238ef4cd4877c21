#include "settings/QMRBlockSubscriberStorage.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using Callback = qm::Block<void(int)>;
using Subscriber = QMRBlockSubscriber<void(int)>;
using Storage = QMRBlockSubscriberStorage<void(int)>;

std::shared_ptr<Subscriber> subscribe(Storage& storage, const Callback& token, const Callback& block) {
  const auto subscriber = std::make_shared<Subscriber>(token, block);
  storage.addSubscriber(subscriber);
  return subscriber;
}

TEST(BlockSubscriberStorageTest, ABlockIsRegisteredOnceAndEitherOfItsHandlesCancelsIt) {
  for (const bool cancelsSecond : {false, true}) {
    auto storage = std::make_shared<Storage>();
    const Callback block = [](int) {};
    const auto first = subscribe(*storage, block, block);
    const auto second = subscribe(*storage, block, block);
    int walked = 0;
    storage->enumerateSubscribers([&walked](const auto&) { ++walked; });
    EXPECT_EQ(walked, 1);
    (cancelsSecond ? second : first)->cancel();
    EXPECT_TRUE(storage->isEmpty());
    storage.reset();
    first->cancel();
  }
}

TEST(BlockSubscriberStorageTest, TheWalkGoesOverThoseWithABlockThatWereThereAtItsStart) {
  const auto storage = std::make_shared<Storage>();
  std::vector<std::shared_ptr<Subscriber>> handles;
  int sum = 0;
  const auto add = [&](const Callback& block) { handles.push_back(subscribe(*storage, block, block)); };
  add([&](int state) {
    sum += state;
    for (const auto& handle : handles) handle->cancel();
    EXPECT_TRUE(storage->isEmpty());
    subscribe(
        *storage, [](int) {}, nullptr);
  });
  add([&](int state) { sum += 10 * state; });
  add(nullptr);
  for (const int state : {1, 2})
    storage->enumerateSubscribers([state](const auto& subscriber) { subscriber->block()(state); });
  EXPECT_EQ(sum, 11);
  EXPECT_FALSE(storage->isEmpty());
}

}  // namespace
