// The base of the clients of the product's own daemons. It keeps one connection to a service, made when it is
// first needed and made anew after it broke, and subscriptions: protocols of this client that the service may
// call. After a break every subscription is renewed, or the process ends when it was told to.
//
// Every function may be called from any thread. Of two recursive locks one is held while a connection is
// made, the other while the subscriptions are used. A thread that holds the second may take the first, never
// the other way round: what runs while a connection is made (its setup and the reconnection handler) must not
// subscribe, unsubscribe or shut the client down. Replies, error callbacks and the other two handlers run
// under neither.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/block.hpp"
#include "foundation/log.hpp"
#include "foundation/property.hpp"
#include "platform/queue.hpp"
#include "platform/remote_connection.hpp"
#include "settings/QMRServiceSubscription.hpp"

// Held by std::shared_ptr only; what its connections and listeners call holds it weakly. A subclass that adds
// to shutdown() calls its own from its destructor, the base's destructor only does the base's part.
class QMRServiceClient : public std::enable_shared_from_this<QMRServiceClient> {
 public:
  using ConnectionSetup = QMRServiceSubscription::ConnectionSetup;
  using ErrorCallback = qm::RemoteConnection::ErrorHandler;

  // A client of the named service, before the namespace; nothing is opened yet. The protocol is the service's
  // and includes QMRSubscriptionProtocol. The setup, which may be null, gets each new connection before it is
  // resumed; it must not ask the client for one. The options are those of qm::RemoteConnection.
  QMRServiceClient(std::string_view machServiceName, qm::RemoteInterface protocol,
                   ConnectionSetup connectionSetup = nullptr);
  QMRServiceClient(std::string_view machServiceName, qm::RemoteInterface protocol,
                   std::uint64_t connectionOptions, ConnectionSetup connectionSetup);
  QMRServiceClient(qm::XPCEndpoint listenerEndpoint, qm::RemoteInterface protocol,
                   ConnectionSetup connectionSetup = nullptr);
  // With a connection that is ready for use. Its handlers stay as they are: its owner sees when it breaks.
  QMRServiceClient(std::shared_ptr<qm::RemoteConnection> xpcConnection, qm::RemoteInterface protocol);
  virtual ~QMRServiceClient();  // shuts down
  QMRServiceClient(const QMRServiceClient&) = delete;
  QMRServiceClient& operator=(const QMRServiceClient&) = delete;

  // In the namespace; none for a client of an endpoint or of a connection.
  const std::optional<std::string>& xpcMachServiceName() const { return xpcMachServiceName_; }
  qm::XPCEndpoint xpcEndpoint() const { return xpcEndpoint_.get(); }
  std::uint64_t connectionOptions() const { return connectionOptions_; }
  const qm::RemoteInterface& xpcProtocol() const { return xpcProtocol_; }
  ConnectionSetup connectionSetup() const { return connectionSetup_.get(); }
  void setConnectionSetup(ConnectionSetup setup) { connectionSetup_.set(std::move(setup)); }

  // What ends the process when the connection breaks, with exit status 101 or 102; both off. Shutting the
  // client down invalidates its connection, too.
  bool shouldTerminateProcessOnXPCInterruption() const { return terminatesOnInterruption_.get(); }
  void setShouldTerminateProcessOnXPCInterruption(bool should) { terminatesOnInterruption_.set(should); }
  bool shouldTerminateProcessOnXPCInvalidation() const { return terminatesOnInvalidation_.get(); }
  void setShouldTerminateProcessOnXPCInvalidation(bool should) { terminatesOnInvalidation_.set(should); }

  // Called each time a new connection has been made and resumed, before any other thread gets it from
  // connection(); it may call the service.
  qm::Block<void()> reconnectionHandler() const { return reconnectionHandler_.get(); }
  void setReconnectionHandler(qm::Block<void()> handler) { reconnectionHandler_.set(std::move(handler)); }
  // Called when the current connection breaks, on its queue, before the client itself does something about
  // it.
  qm::Block<void()> interruptionHandler() const { return interruptionHandler_.get(); }
  void setInterruptionHandler(qm::Block<void()> handler) { interruptionHandler_.set(std::move(handler)); }
  qm::Block<void()> invalidationHandler() const { return invalidationHandler_.get(); }
  void setInvalidationHandler(qm::Block<void()> handler) { invalidationHandler_.set(std::move(handler)); }

  // The current connection, made when there is none; null once the client is shut down without one.
  std::shared_ptr<qm::RemoteConnection> connection();
  // A new one, not resumed. Throws qm::InternalInconsistencyException when the client has neither a name nor
  // an endpoint to connect to.
  std::shared_ptr<qm::RemoteConnection> createConnection(const ConnectionSetup& setup) const;
  // The current connection or null.
  std::shared_ptr<qm::RemoteConnection> xpcConnection() const { return xpcConnection_.get(); }
  bool isConnected() const { return xpcConnection() != nullptr; }

  // The service's object. Errors of its calls are logged, or go to the callback; the synchronous one answers
  // on the calling thread. Of a client that is shut down without a connection, calls do nothing.
  virtual qm::RemoteProxy proxy();
  qm::RemoteProxy proxyWithErrorCallback(ErrorCallback callback);
  qm::RemoteProxy synchronousProxyWithErrorCallback(ErrorCallback callback);

  // Lets the service call the methods of one protocol of this client, see exportForProtocol(); again after
  // every break. The setup, which may be null, gets each connection that the service opens for it, before it
  // is resumed, under the lock of the subscriptions. Does nothing for a protocol that is subscribed to
  // already. Always true.
  bool subscribeToUpdateWithProtocol(const std::string& protocolName,
                                     ConnectionSetup connectionSetup = nullptr);
  // Asks the service once for a protocol that subscribeToUpdateWithProtocol has set up. The callback, which
  // may be null, gets the service's answer, on the connection's queue; none when the connection breaks; and
  // false at once for a protocol that is not set up.
  void subscribeWithProtocol(const std::string& protocolName, qm::Block<void(bool success)> callback);
  // Returns false when there was no subscription.
  bool unsubscribeProtocol(const std::string& protocolName);

  // Ends the subscriptions and the connection for good.
  virtual void shutdown();
  // Ends those that there are, without telling the service that the subscriptions end.
  void shutdownWithoutUnsubscribe();
  // Ends the process with the exit status. Other threads still run: nothing is cleaned up.
  virtual void terminateProcessWithCode(int code);

  // The steps of recovery. After a break of the connection:
  void connectionInterrupted();
  void connectionInvalidated();
  void resetSubscriptions();
  // Drops the connection and tries to renew the subscriptions 2 seconds later, or 120 after 29 tries in a row
  // that did not succeed. While one try is due, further breaks neither count nor bring another: during an
  // outage every call makes a connection that breaks at once, and each would add a timer and use up one of
  // the quick tries.
  void trySubscribe();
  // Renews one subscription that needs it, and when that succeeded the next.
  void continueSubscribe();
  void doContinueSubscribe();

  // Decides about a connection that a service opens to one of the subscriptions' listeners.
  bool listener(const std::shared_ptr<qm::RemoteListener>& listener,
                const std::shared_ptr<qm::RemoteConnection>& newConnection);

  virtual std::string description() const;

 protected:
  // This object as the named protocol, for the service to call: held weakly, null for a protocol that the
  // class does not implement (the base implements none). Under the lock of the subscriptions.
  virtual qm::RemoteExport exportForProtocol(const std::string& protocolName);
  // Runs the work on the reconnect queue after the delay, never at once. All of the recovery goes through
  // here.
  virtual void reconnectAfter(std::chrono::seconds delay, qm::Block<void()> work);

 private:
  explicit QMRServiceClient(qm::RemoteInterface protocol);
  void watch(const std::shared_ptr<qm::RemoteConnection>& connection);
  void connectionBroke(const std::weak_ptr<qm::RemoteConnection>& broken, const qm::Block<void()>& hook,
                       void (QMRServiceClient::*recover)());
  std::shared_ptr<QMRServiceSubscription> subscription(const std::string& protocolName) const;

  const qm::Queue reconnectQueue_;
  std::map<std::string, std::shared_ptr<QMRServiceSubscription>> protocolListeners_;
  qm::Property<bool> terminatesOnInterruption_;
  qm::Property<bool> terminatesOnInvalidation_;
  qm::Property<bool> deallocating_;
  const qm::RemoteInterface xpcProtocol_;
  std::optional<std::string> xpcMachServiceName_;
  std::uint64_t connectionOptions_ = 0;
  qm::Property<qm::Block<void()>> reconnectionHandler_;
  qm::Property<qm::Block<void()>> interruptionHandler_;
  qm::Property<qm::Block<void()>> invalidationHandler_;
  qm::Property<std::shared_ptr<qm::RemoteConnection>> xpcConnection_;
  qm::Property<qm::XPCEndpoint> xpcEndpoint_;
  int trySubscribeBurndown_;  // quick retries that are left
  bool renewalIsScheduled_ = false;
  qm::Property<ConnectionSetup> connectionSetup_;

  // Of the subscriptions, of when they are renewed, and of taking a connection out of xpcConnection_.
  mutable std::recursive_mutex protocolListenersLock_;
  // Of putting a connection into xpcConnection_, and of setting deallocating_. The inner of the two.
  std::recursive_mutex connectionLock_;
};
