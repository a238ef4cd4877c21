// One protocol that a service client has subscribed to: the listener whose endpoint the service has, and
// whether the service knows of it.
#pragma once

#include <memory>

#include "foundation/block.hpp"
#include "platform/remote_connection.hpp"

class QMRServiceSubscription {
 public:
  using ConnectionSetup = qm::Block<void(const std::shared_ptr<qm::RemoteConnection>& connection)>;

  // The setup, which may be null, gets each connection that the service opens, before it is resumed.
  QMRServiceSubscription(std::shared_ptr<qm::RemoteListener> listener, ConnectionSetup connectionSetup);
  ~QMRServiceSubscription();  // invalidates the listener
  QMRServiceSubscription(const QMRServiceSubscription&) = delete;
  QMRServiceSubscription& operator=(const QMRServiceSubscription&) = delete;

  const std::shared_ptr<qm::RemoteListener>& listener() const { return listener_; }
  const ConnectionSetup& connectionSetup() const { return connectionSetup_; }
  // The service has acknowledged it and the connection to the service has not broken since. Under the
  // client's lock.
  bool alive() const { return alive_; }
  void setAlive(bool alive) { alive_ = alive; }

 private:
  const std::shared_ptr<qm::RemoteListener> listener_;
  const ConnectionSetup connectionSetup_;
  bool alive_ = false;
};
