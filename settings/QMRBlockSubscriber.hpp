// One registration in a QMRBlockSubscriberStorage: who subscribes gets it back as the handle to cancel with.
#pragma once

#include <memory>
#include <utility>

#include "foundation/block.hpp"

template <class Signature>
class QMRBlockSubscriberStorage;

template <class Signature>
class QMRBlockSubscriber {
 public:
  using Callback = qm::Block<Signature>;

  // The token's identity is that of the registration. A publisher passes the callback itself as both.
  QMRBlockSubscriber(Callback token, Callback block) : token_(std::move(token)), block_(std::move(block)) {}
  QMRBlockSubscriber(const QMRBlockSubscriber&) = delete;
  QMRBlockSubscriber& operator=(const QMRBlockSubscriber&) = delete;

  const Callback& token() const { return token_; }
  const Callback& block() const { return block_; }

  // The registry this belongs to; held weakly.
  void assignStorage(const std::shared_ptr<QMRBlockSubscriberStorage<Signature>>& storage) {
    storage_ = storage;
  }
  // Removes the registration under the token, if the registry is still there. On the registry's thread.
  void cancel() const {
    if (const auto storage = storage_.lock()) storage->cancelByToken(token_);
  }

 private:
  const Callback token_;
  const Callback block_;
  std::weak_ptr<QMRBlockSubscriberStorage<Signature>> storage_;
};
