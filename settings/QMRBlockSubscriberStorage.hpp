// A registry of callback blocks by their identity, for code that publishes a state: each interested party
// registers a block and cancels it through its QMRBlockSubscriber.
//
//   const auto subscriber = std::make_shared<QMRBlockSubscriber<void(int)>>(callback, callback);
//   storage->addSubscriber(subscriber);
//   callback(state);  // and whenever the state changes:
//   storage->enumerateSubscribers([state](const auto& each) { each->block()(state); });
#pragma once

#include <memory>
#include <unordered_map>
#include <vector>

#include "foundation/block.hpp"
#include "settings/QMRBlockSubscriber.hpp"

// Made with std::make_shared only. Without a lock: all calls for one registry, and the cancelling of its
// subscribers, come from one thread or serial queue.
template <class Signature>
class QMRBlockSubscriberStorage : public std::enable_shared_from_this<QMRBlockSubscriberStorage<Signature>> {
 public:
  using Subscriber = QMRBlockSubscriber<Signature>;

  QMRBlockSubscriberStorage() = default;
  QMRBlockSubscriberStorage(const QMRBlockSubscriberStorage&) = delete;
  QMRBlockSubscriberStorage& operator=(const QMRBlockSubscriberStorage&) = delete;

  bool isEmpty() const { return subscribersStorage_.empty(); }

  // Ignored when its token is null. A token that is registered already keeps its first subscriber; both can
  // cancel it.
  void addSubscriber(const std::shared_ptr<Subscriber>& subscriber) {
    if (!subscriber || !subscriber->token()) return;
    subscriber->assignStorage(this->shared_from_this());
    subscribersStorage_.try_emplace(subscriber->token(), subscriber);
  }

  // Calls the block, unless it is null, for each subscriber registered now that has a block, in no order.
  // Subscribers may be added and cancelled meanwhile.
  void enumerateSubscribers(
      const qm::Block<void(const std::shared_ptr<Subscriber>& subscriber)>& block) const {
    if (!block) return;
    std::vector<std::shared_ptr<Subscriber>> registered;
    registered.reserve(subscribersStorage_.size());
    for (const auto& [token, subscriber] : subscribersStorage_)
      if (subscriber->block()) registered.push_back(subscriber);
    for (const std::shared_ptr<Subscriber>& subscriber : registered) block(subscriber);
  }

  // A null or unknown token is ignored.
  void cancelByToken(const typename Subscriber::Callback& token) {
    // Released when the registry is whole again: what the block holds may use it.
    const auto removed = subscribersStorage_.extract(token);
  }

 private:
  std::unordered_map<typename Subscriber::Callback, std::shared_ptr<Subscriber>> subscribersStorage_;
};
