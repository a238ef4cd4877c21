#include "settings/QMRServiceClient.hpp"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "foundation/internal_inconsistency.hpp"
#include "foundation/object_description.hpp"
#include "settings/QMRNamespace.hpp"
#include "settings/QMRSubscriptionProtocol.hpp"

namespace {

constexpr int kQuickRetries = 30;
constexpr std::chrono::seconds kQuickRetryDelay(2);
constexpr std::chrono::seconds kSlowRetryDelay(120);
constexpr int kExitInterrupted = 101;
constexpr int kExitInvalidated = 102;

qm::Log& classLog() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "QMRServiceClient");
  return log;
}

const char* outcome(bool success) {
  return success ? "succeeded" : "failed";
}

}  // namespace

QMRServiceClient::QMRServiceClient(qm::RemoteInterface protocol)
    : reconnectQueue_(qm::Queue::serial("com.quillmarsh.QMRServiceClient.reconnectQueue",
                                        qm::QualityOfService::standard, -1)),
      xpcProtocol_(std::move(protocol)),
      trySubscribeBurndown_(kQuickRetries) {}

QMRServiceClient::QMRServiceClient(std::string_view machServiceName, qm::RemoteInterface protocol,
                                   ConnectionSetup connectionSetup)
    : QMRServiceClient(machServiceName, std::move(protocol), qm::kRemoteConnectionPrivileged,
                       std::move(connectionSetup)) {}

QMRServiceClient::QMRServiceClient(std::string_view machServiceName, qm::RemoteInterface protocol,
                                   std::uint64_t connectionOptions, ConnectionSetup connectionSetup)
    : QMRServiceClient(std::move(protocol)) {
  xpcMachServiceName_ = QMRNamespace::namespacedWithId(machServiceName);
  QM_LOG(classLog(), "will try to connect to service with name %@", xpcMachServiceName_);
  connectionOptions_ = connectionOptions;
  connectionSetup_.set(std::move(connectionSetup));
}

QMRServiceClient::QMRServiceClient(qm::XPCEndpoint listenerEndpoint, qm::RemoteInterface protocol,
                                   ConnectionSetup connectionSetup)
    : QMRServiceClient(std::move(protocol)) {
  xpcEndpoint_.set(std::move(listenerEndpoint));
  connectionSetup_.set(std::move(connectionSetup));
}

QMRServiceClient::QMRServiceClient(std::shared_ptr<qm::RemoteConnection> xpcConnection,
                                   qm::RemoteInterface protocol)
    : QMRServiceClient(std::move(protocol)) {
  xpcConnection_.set(std::move(xpcConnection));
}

QMRServiceClient::~QMRServiceClient() {
  QMRServiceClient::shutdown();
}

std::string QMRServiceClient::description() const {
  return qm::objectDescription("QMRServiceClient", this);
}

// --- The connection ---

std::shared_ptr<qm::RemoteConnection> QMRServiceClient::connection() {
  const std::lock_guard lock(connectionLock_);
  std::shared_ptr<qm::RemoteConnection> current = xpcConnection();
  if (current || deallocating_.get()) return current;
  current = createConnection(connectionSetup());
  watch(current);
  xpcConnection_.set(current);
  current->resume();
  if (const qm::Block<void()> handler = reconnectionHandler()) handler();
  // The one that was made, also when it has broken already: its calls fail, and their callers hear of it.
  return current;
}

std::shared_ptr<qm::RemoteConnection> QMRServiceClient::createConnection(const ConnectionSetup& setup) const {
  std::shared_ptr<qm::RemoteConnection> created;
  if (const qm::XPCEndpoint endpoint = xpcEndpoint()) {
    QM_LOG_DEBUG(classLog(), "Using anonymous endpoint %@", endpoint);
    created = qm::RemoteConnection::createWithListenerEndpoint(endpoint);
  } else {
    QM_LOG_DEBUG(classLog(), "Setting up XPC connection to Mach service %@ with options %lu",
                 xpcMachServiceName_, connectionOptions_);
    if (!xpcMachServiceName_) throw qm::InternalInconsistencyException("xpcMachServiceName property is nil");
    created = qm::RemoteConnection::createWithMachServiceName(*xpcMachServiceName_, connectionOptions_);
  }
  created->setRemoteObjectInterface(xpcProtocol_);
  if (setup) setup(created);
  return created;
}

void QMRServiceClient::watch(const std::shared_ptr<qm::RemoteConnection>& connection) {
  const std::weak_ptr<qm::RemoteConnection> watched = connection;
  connection->setInterruptionHandler([client = weak_from_this(), watched] {
    if (const auto self = client.lock())
      self->connectionBroke(watched, self->interruptionHandler(), &QMRServiceClient::connectionInterrupted);
  });
  connection->setInvalidationHandler([client = weak_from_this(), watched] {
    if (const auto self = client.lock())
      self->connectionBroke(watched, self->invalidationHandler(), &QMRServiceClient::connectionInvalidated);
  });
}

// A connection that was replaced meanwhile is no concern of its successor.
void QMRServiceClient::connectionBroke(const std::weak_ptr<qm::RemoteConnection>& broken,
                                       const qm::Block<void()>& hook, void (QMRServiceClient::*recover)()) {
  const std::shared_ptr<qm::RemoteConnection> connection = broken.lock();
  if (!connection || connection != xpcConnection()) return;
  if (hook) hook();
  const std::lock_guard lock(protocolListenersLock_);
  if (connection == xpcConnection()) (this->*recover)();
}

qm::RemoteProxy QMRServiceClient::proxy() {
  return proxyWithErrorCallback([](const qm::ErrorPtr& error) {
    QM_LOG_ERROR(classLog(), "%s: XPC error from remote: %@", "-[QMRServiceClient proxy]_block_invoke",
                 error);
  });
}

qm::RemoteProxy QMRServiceClient::proxyWithErrorCallback(ErrorCallback callback) {
  const std::shared_ptr<qm::RemoteConnection> current = connection();
  return current ? current->remoteObjectProxyWithErrorHandler(std::move(callback)) : qm::RemoteProxy();
}

qm::RemoteProxy QMRServiceClient::synchronousProxyWithErrorCallback(ErrorCallback callback) {
  const std::shared_ptr<qm::RemoteConnection> current = connection();
  return current ? current->synchronousRemoteObjectProxyWithErrorHandler(std::move(callback))
                 : qm::RemoteProxy();
}

// --- Subscriptions ---

std::shared_ptr<QMRServiceSubscription> QMRServiceClient::subscription(
    const std::string& protocolName) const {
  const std::lock_guard lock(protocolListenersLock_);
  const auto found = protocolListeners_.find(protocolName);
  return found == protocolListeners_.end() ? nullptr : found->second;
}

bool QMRServiceClient::subscribeToUpdateWithProtocol(const std::string& protocolName,
                                                     ConnectionSetup connectionSetup) {
  const std::lock_guard lock(protocolListenersLock_);
  if (deallocating_.get() || protocolListeners_.contains(protocolName)) return true;
  const std::shared_ptr<qm::RemoteListener> newListener = qm::RemoteListener::anonymousListener();
  newListener->setDelegate(
      [client = weak_from_this()](const std::shared_ptr<qm::RemoteListener>& asking,
                                  const std::shared_ptr<qm::RemoteConnection>& newConnection) {
        const std::shared_ptr<QMRServiceClient> self = client.lock();
        return self && self->listener(asking, newConnection);
      });
  newListener->resume();
  QM_LOG_DEBUG(classLog(), "Setting up new anonymous listener for protocol %@", protocolName);
  protocolListeners_.emplace(
      protocolName, std::make_shared<QMRServiceSubscription>(newListener, std::move(connectionSetup)));
  subscribeWithProtocol(protocolName, [protocolName](bool success) {
    QM_LOG_DEBUG(classLog(), "Initial subscription to protocol %@ %@.", protocolName, outcome(success));
  });
  return true;
}

void QMRServiceClient::subscribeWithProtocol(const std::string& protocolName,
                                             qm::Block<void(bool success)> callback) {
  const std::shared_ptr<QMRServiceSubscription> asked = subscription(protocolName);
  if (!asked) {
    if (callback) callback(false);
    return;
  }
  proxy().call<&QMRSubscriptionProtocol::subscribeToChangesWithProtocol>(
      protocolName, asked->listener()->endpoint(),
      [client = weak_from_this(), weakAsked = std::weak_ptr(asked), protocolName,
       callback = std::move(callback)](bool success) {
        QM_LOG_DEBUG(classLog(), "Subscription to protocol %@ %@.", protocolName, outcome(success));
        const std::shared_ptr<QMRServiceClient> self = client.lock();
        if (const auto answered = weakAsked.lock(); self && answered) {
          const std::lock_guard lock(self->protocolListenersLock_);
          answered->setAlive(success);
        }
        QM_LOG_DEBUG(classLog(), "Flagging annonymous listtener for protocol %@ as alive: %d", protocolName,
                     success);
        if (callback) callback(success);
      });
}

bool QMRServiceClient::unsubscribeProtocol(const std::string& protocolName) {
  const std::lock_guard lock(protocolListenersLock_);
  const auto found = protocolListeners_.find(protocolName);
  if (found == protocolListeners_.end()) return false;
  const std::shared_ptr<QMRServiceSubscription> removed = found->second;
  synchronousProxyWithErrorCallback([protocolName](const qm::ErrorPtr& error) {
    QM_LOG_ERROR(classLog(), "Failed to unsubscribe protocol %@, error: %@", protocolName, error);
  }).call<&QMRSubscriptionProtocol::unsubscribeEndpoint>(removed->listener()->endpoint(), protocolName);
  removed->listener()->invalidate();
  protocolListeners_.erase(protocolName);
  return true;
}

bool QMRServiceClient::listener(const std::shared_ptr<qm::RemoteListener>& listener,
                                const std::shared_ptr<qm::RemoteConnection>& newConnection) {
  QM_LOG_DEBUG(classLog(), "Received new connection: %@, for listener: %@", newConnection, listener);
  const std::lock_guard lock(protocolListenersLock_);
  const auto found =
      std::find_if(protocolListeners_.begin(), protocolListeners_.end(),
                   [&listener](const auto& entry) { return entry.second->listener() == listener; });
  if (found == protocolListeners_.end()) return false;
  const auto [protocolName, asked] = *found;  // copies: the setup may end the subscription
  qm::RemoteExport exported = exportForProtocol(protocolName);
  if (!exported) {
    QM_LOG_ERROR(classLog(), "Error: could not resolve protocol %@", protocolName);
    return true;
  }
  newConnection->setExport(std::move(exported));
  if (asked->connectionSetup()) asked->connectionSetup()(newConnection);
  newConnection->resume();
  QM_LOG_DEBUG(classLog(), "%@: Accepted connection %@ for listener %@ and protocol %@", description(),
               newConnection, listener, protocolName);
  return true;
}

qm::RemoteExport QMRServiceClient::exportForProtocol(const std::string& /*protocolName*/) {
  return {};
}

// --- Recovery ---

void QMRServiceClient::connectionInterrupted() {
  QM_LOG_DEBUG(classLog(), "XPC interrupted for connection: %@", xpcConnection());
  if (shouldTerminateProcessOnXPCInterruption()) {
    QM_LOG_ERROR(classLog(), "Will terminate process due to XPC interruption");
    return terminateProcessWithCode(kExitInterrupted);
  }
  resetSubscriptions();
  trySubscribe();
}

void QMRServiceClient::connectionInvalidated() {
  QM_LOG_DEBUG(classLog(), "XPC invalidated for connection: %@", xpcConnection());
  if (shouldTerminateProcessOnXPCInvalidation()) {
    QM_LOG_ERROR(classLog(), "Will terminate process due to XPC invalidation");
    return terminateProcessWithCode(kExitInvalidated);
  }
  resetSubscriptions();
  trySubscribe();
}

void QMRServiceClient::terminateProcessWithCode(int code) {
  std::_Exit(code);
}

void QMRServiceClient::resetSubscriptions() {
  const std::lock_guard lock(protocolListenersLock_);
  for (const auto& [protocolName, subscription] : protocolListeners_) subscription->setAlive(false);
}

void QMRServiceClient::trySubscribe() {
  const std::lock_guard lock(protocolListenersLock_);
  xpcConnection_.set(nullptr);
  if (protocolListeners_.empty() || renewalIsScheduled_) return;
  renewalIsScheduled_ = true;
  if (trySubscribeBurndown_ >= 1) --trySubscribeBurndown_;
  const std::chrono::seconds delay = trySubscribeBurndown_ > 0 ? kQuickRetryDelay : kSlowRetryDelay;
  QM_LOG_DEBUG(classLog(), "Attempting to resubscribe everything in %ld sec", delay.count());
  reconnectAfter(delay, [client = weak_from_this()] {
    const auto self = client.lock();
    if (!self) return;
    const std::lock_guard scheduledLock(self->protocolListenersLock_);
    self->renewalIsScheduled_ = false;
    self->doContinueSubscribe();
  });
}

void QMRServiceClient::reconnectAfter(std::chrono::seconds delay, qm::Block<void()> work) {
  reconnectQueue_.after(delay, std::move(work));
}

void QMRServiceClient::continueSubscribe() {
  reconnectAfter(std::chrono::seconds::zero(), [client = weak_from_this()] {
    if (const auto self = client.lock()) self->doContinueSubscribe();
  });
}

void QMRServiceClient::doContinueSubscribe() {
  QM_LOG_DEBUG(classLog(), "Resubscribing");
  const std::lock_guard lock(protocolListenersLock_);
  const auto found = std::find_if(protocolListeners_.begin(), protocolListeners_.end(),
                                  [](const auto& entry) { return !entry.second->alive(); });
  if (found == protocolListeners_.end()) return;
  const std::string protocolName = found->first;
  QM_LOG_DEBUG(classLog(), "Trying to resubscribe to XPC protocol %@", protocolName);
  subscribeWithProtocol(protocolName, [client = weak_from_this(), protocolName](bool success) {
    QM_LOG_DEBUG(classLog(), "Re-subscription to protocol %@ %@.", protocolName, outcome(success));
    const std::shared_ptr<QMRServiceClient> self = client.lock();
    // After a failure the next break of the connection brings the next attempt, no timer does.
    if (!success || !self) return;
    QM_LOG_DEBUG(classLog(), "Moving on to next protocol.");
    self->continueSubscribe();
    QM_LOG_DEBUG(classLog(), "Resetting `trySubscribeBurndown`.");
    const std::lock_guard callbackLock(self->protocolListenersLock_);
    self->trySubscribeBurndown_ = kQuickRetries;
  });
}

// --- The end ---

void QMRServiceClient::shutdown() {
  {
    const std::lock_guard lock(connectionLock_);
    deallocating_.set(true);
  }
  std::vector<std::string> protocolNames;
  {
    const std::lock_guard lock(protocolListenersLock_);
    for (const auto& [protocolName, subscription] : protocolListeners_) protocolNames.push_back(protocolName);
  }
  for (const std::string& protocolName : protocolNames) unsubscribeProtocol(protocolName);
  shutdownWithoutUnsubscribe();
}

void QMRServiceClient::shutdownWithoutUnsubscribe() {
  QM_LOG(classLog(), "shutdownWithoutUnsubscribe");
  {
    std::map<std::string, std::shared_ptr<QMRServiceSubscription>> dropped;
    const std::lock_guard lock(protocolListenersLock_);
    dropped.swap(protocolListeners_);
  }
  if (const std::shared_ptr<qm::RemoteConnection> current = xpcConnection()) current->invalidate();
}
