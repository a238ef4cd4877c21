// The processes that want to hear of remote actions: one subscription for each of their endpoints and
// protocols. Pushes actions to them and gathers what they answer.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/block.hpp"
#include "foundation/value.hpp"
#include "platform/remote_connection.hpp"
#include "platform/xpc.hpp"

namespace qm {

// Any thread. Nobody waits here for a subscriber: calls go out at once, and one that does not read or answer
// costs the others nothing.
class RemoteActionSubscribers : public std::enable_shared_from_this<RemoteActionSubscribers> {
 public:
  struct Limits {
    std::size_t subscriptions = 1024;
    std::size_t subscriptionsOfOneProcess = 16;
    std::size_t unansweredActions = 16;  // of one subscriber; it gets no further ones until it answers
    std::size_t runningPushes = 16;
    std::chrono::milliseconds answerTime{5000};
  };

  static std::shared_ptr<RemoteActionSubscribers> create(Limits limits);

  // Connects to the endpoint. The process is the one that asks. False for a protocol that nothing is
  // ever called of, an endpoint that is null, and past a limit. Asked again, it takes the place of the
  // subscription that is there. It ends when the connection does.
  bool subscribe(std::int32_t process, const std::string& protocolName, const XPCEndpoint& endpoint);
  void unsubscribe(const std::string& protocolName, const XPCEndpoint& endpoint);
  std::size_t count(const std::string& protocolName) const;

  // The completion gets the results once, in no particular order, at the latest when the time to answer is
  // over; see SettingsAdministration::pushRemoteAction. Whoever subscribed to actions that were carried out
  // hears of each result of a handler. False when too many pushes are running.
  [[nodiscard]] bool push(const std::string& name, const Dictionary& actionData,
                          Block<void(const Array& results)> completion);

 private:
  struct Subscription;
  class Push;
  using Subscriptions = std::map<std::uint64_t, std::shared_ptr<Subscription>>;

  explicit RemoteActionSubscribers(Limits limits) : limits_(limits) {}

  std::shared_ptr<Subscription> connect(std::uint64_t number, const XPCEndpoint& endpoint);
  Subscriptions of(const std::string& protocolName) const;
  void remove(std::uint64_t number);
  void send(const std::shared_ptr<Subscription>& subscription, const std::string& name,
            const Dictionary& actionData, const std::shared_ptr<Push>& push);
  void announce(const std::string& name, std::int64_t result) const;

  const Limits limits_;
  mutable std::mutex mutex_;
  Subscriptions subscriptions_;
  std::uint64_t lastNumber_ = 0;
  std::size_t runningPushes_ = 0;
};

}  // namespace qm
