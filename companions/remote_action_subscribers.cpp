#include "companions/remote_action_subscribers.hpp"

#include <algorithm>
#include <atomic>
#include <utility>
#include <vector>

#include "foundation/log.hpp"
#include "platform/queue.hpp"
#include "platform/remote_protocol.hpp"
#include "settings/remote_action_protocols.hpp"

namespace qm {

namespace {

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "qmsettingsd");
  return log;
}

RemoteInterface interfaceNamed(const std::string& protocolName) {
  if (protocolName == RemoteProtocol<RemoteActionEventsProtocol>::name)
    return remoteInterface<RemoteActionEventsProtocol>();
  if (protocolName == RemoteProtocol<RemoteActionExecutedEventsProtocol>::name)
    return remoteInterface<RemoteActionExecutedEventsProtocol>();
  return {};
}

}  // namespace

struct RemoteActionSubscribers::Subscription {
  std::int32_t process = 0;  // that asked for it
  std::string protocolName;
  XPCEndpoint endpoint;
  std::shared_ptr<RemoteConnection> connection;
  std::atomic<std::size_t> unanswered = 0;
};

// One action on its way to many; complete with the last answer or when the time is over.
class RemoteActionSubscribers::Push {
 public:
  Push(std::size_t expected, Block<void(const Array& results)> completion)
      : expected_(expected), completion_(std::move(completion)) {}

  void add(const Subscription& subscription, Value result, const char* key) {
    const std::int64_t process = subscription.connection->processIdentifier();
    std::unique_lock lock(mutex_);
    if (!completion_) return;
    waiting_.erase(&subscription);
    results_.push_back(Dictionary{{"process", process}, {key, std::move(result)}});
    if (results_.size() == expected_) complete(lock);
  }
  void expect(const std::shared_ptr<Subscription>& subscription) {
    const std::lock_guard lock(mutex_);
    waiting_.emplace(subscription.get(), subscription);
  }
  void timeIsOver() {
    std::unique_lock lock(mutex_);
    if (!completion_) return;
    for (const auto& [address, subscription] : waiting_)
      results_.push_back(Dictionary{{"process", subscription->connection->processIdentifier()},
                                    {"error", "It did not answer in time."}});
    complete(lock);
  }

 private:
  void complete(std::unique_lock<std::mutex>& lock) {
    const auto completion = std::exchange(completion_, nullptr);
    const Array results = std::move(results_);
    waiting_.clear();
    lock.unlock();
    completion(results);
  }

  std::mutex mutex_;
  const std::size_t expected_;
  Block<void(const Array& results)> completion_;  // null once it was called
  Array results_;
  std::map<const Subscription*, std::shared_ptr<Subscription>> waiting_;
};

std::shared_ptr<RemoteActionSubscribers> RemoteActionSubscribers::create(Limits limits) {
  return std::shared_ptr<RemoteActionSubscribers>(new RemoteActionSubscribers(limits));
}

bool RemoteActionSubscribers::subscribe(std::int32_t process, const std::string& protocolName,
                                        const XPCEndpoint& endpoint) {
  const RemoteInterface interface = interfaceNamed(protocolName);
  if (!interface || !endpoint) {
    QM_LOG_ERROR(log(), "A subscription to %{public}@ is refused", protocolName);
    return false;
  }
  std::shared_ptr<Subscription> replaced;
  std::shared_ptr<Subscription> added;
  {
    const std::lock_guard lock(mutex_);
    std::size_t ofProcess = 0;
    auto found = subscriptions_.end();
    for (auto entry = subscriptions_.begin(); entry != subscriptions_.end(); ++entry) {
      const Subscription& other = *entry->second;
      if (other.protocolName == protocolName && other.endpoint == endpoint) found = entry;
      ofProcess += other.process == process ? 1 : 0;
    }
    const bool isFull =
        subscriptions_.size() >= limits_.subscriptions || ofProcess >= limits_.subscriptionsOfOneProcess;
    if (found == subscriptions_.end() && isFull) {
      QM_LOG_ERROR(log(), "A subscription to %{public}@ is refused: there are too many", protocolName);
      return false;
    }
    if (found != subscriptions_.end()) {
      replaced = found->second;
      subscriptions_.erase(found);
    }
    const std::uint64_t number = ++lastNumber_;
    added = connect(number, endpoint);
    added->process = process;
    added->protocolName = protocolName;
    added->connection->setRemoteObjectInterface(interface);
    subscriptions_.emplace(number, added);
  }
  if (replaced != nullptr) replaced->connection->invalidate();
  added->connection->resume();
  return true;
}

std::shared_ptr<RemoteActionSubscribers::Subscription> RemoteActionSubscribers::connect(
    std::uint64_t number, const XPCEndpoint& endpoint) {
  auto subscription = std::make_shared<Subscription>();
  subscription->endpoint = endpoint;
  subscription->connection = RemoteConnection::createWithListenerEndpoint(endpoint);
  subscription->connection->setInvalidationHandler([weak = weak_from_this(), number] {
    if (const auto self = weak.lock()) self->remove(number);
  });
  return subscription;
}

void RemoteActionSubscribers::remove(std::uint64_t number) {
  std::shared_ptr<Subscription> removed;  // goes outside of the lock
  const std::lock_guard lock(mutex_);
  const auto found = subscriptions_.find(number);
  if (found == subscriptions_.end()) return;
  removed = std::move(found->second);
  subscriptions_.erase(found);
}

void RemoteActionSubscribers::unsubscribe(const std::string& protocolName, const XPCEndpoint& endpoint) {
  for (const auto& [number, subscription] : of(protocolName)) {
    if (!(subscription->endpoint == endpoint)) continue;
    remove(number);
    subscription->connection->invalidate();
  }
}

RemoteActionSubscribers::Subscriptions RemoteActionSubscribers::of(const std::string& protocolName) const {
  Subscriptions found;
  const std::lock_guard lock(mutex_);
  for (const auto& [number, subscription] : subscriptions_)
    if (subscription->protocolName == protocolName) found.emplace(number, subscription);
  return found;
}

std::size_t RemoteActionSubscribers::count(const std::string& protocolName) const {
  return of(protocolName).size();
}

bool RemoteActionSubscribers::push(const std::string& name, const Dictionary& actionData,
                                   Block<void(const Array& results)> completion) {
  {
    const std::lock_guard lock(mutex_);
    if (runningPushes_ >= limits_.runningPushes) return false;
    ++runningPushes_;
  }
  const Subscriptions receivers = of(std::string(RemoteProtocol<RemoteActionEventsProtocol>::name));
  const auto push = std::make_shared<Push>(
      receivers.size(),
      [self = shared_from_this(), completion = std::move(completion)](const Array& results) {
        {
          const std::lock_guard lock(self->mutex_);
          --self->runningPushes_;
        }
        completion(results);
      });
  for (const auto& [number, subscription] : receivers) push->expect(subscription);
  for (const auto& [number, subscription] : receivers) send(subscription, name, actionData, push);
  if (receivers.empty())
    push->timeIsOver();
  else
    Queue::global().after(limits_.answerTime, [push] { push->timeIsOver(); });
  return true;
}

void RemoteActionSubscribers::send(const std::shared_ptr<Subscription>& subscription, const std::string& name,
                                   const Dictionary& actionData, const std::shared_ptr<Push>& push) {
  if (++subscription->unanswered > limits_.unansweredActions) {
    --subscription->unanswered;
    return push->add(*subscription, "It has not answered earlier actions.", "error");
  }
  const RemoteProxy proxy = subscription->connection->remoteObjectProxyWithErrorHandler(
      [subscription, push](const ErrorPtr& error) {
        --subscription->unanswered;
        push->add(*subscription, error->localizedDescription(), "error");
      });
  proxy.call<&RemoteActionEventsProtocol::remoteActionWasPushedWithName>(
      name, XPCEndpoint(), actionData,
      Block<void(std::int64_t)>([weak = weak_from_this(), subscription, push, name](std::int64_t result) {
        --subscription->unanswered;
        push->add(*subscription, result, "result");
        const auto self = weak.lock();
        if (self != nullptr && result != kRemoteActionHasNoHandler) self->announce(name, result);
      }));
}

void RemoteActionSubscribers::announce(const std::string& name, std::int64_t result) const {
  for (const auto& [number, subscription] :
       of(std::string(RemoteProtocol<RemoteActionExecutedEventsProtocol>::name)))
    subscription->connection->remoteObjectProxyWithErrorHandler(nullptr)
        .call<&RemoteActionExecutedEventsProtocol::remoteActionWasExecutedWithName>(name, result);
}

}  // namespace qm
