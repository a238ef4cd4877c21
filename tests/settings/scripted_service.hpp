// A service for a client under test, in this process: it serves an object to whoever connects, can break the
// connections, and calls its clients back.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/remote_protocol.hpp"
#include "support/inbox.hpp"

namespace qm::test {

template <class Protocol>
class ScriptedService {
 public:
  // Without a name: behind the endpoint. What it may send is the interface's, or as it was adjusted.
  explicit ScriptedService(
      std::shared_ptr<Protocol> object, const std::string& name = {},
      Block<void(RemoteInterface&)> adjust = [](RemoteInterface&) {})
      : listener_(name.empty() ? RemoteListener::anonymousListener()
                               : RemoteListener::createWithMachServiceName(name, nullptr)) {
    listener_->setDelegate([peers = peers_, object = std::move(object), adjust](
                               const auto&, const std::shared_ptr<RemoteConnection>& peer) {
      RemoteExport exported = remoteExport<Protocol>(object);
      adjust(exported.interface());
      peer->setExport(std::move(exported));
      peer->resume();
      peers->put(peer);
      return true;
    });
    listener_->resume();
  }

  XPCEndpoint endpoint() const { return listener_->endpoint(); }
  // Ends the next of the connections that were made, waiting for it.
  void breakConnection() { (*peers_->take())->invalidate(); }

 private:
  const std::shared_ptr<Inbox<std::shared_ptr<RemoteConnection>>> peers_ =
      std::make_shared<Inbox<std::shared_ptr<RemoteConnection>>>();
  const std::shared_ptr<RemoteListener> listener_;
};

// A connection to an endpoint, as a service opens one to call its client back.
template <class Protocol>
std::shared_ptr<RemoteConnection> connectTo(const XPCEndpoint& endpoint) {
  auto connection = RemoteConnection::createWithListenerEndpoint(endpoint);
  connection->setRemoteObjectInterface(remoteInterface<Protocol>());
  connection->resume();
  return connection;
}

}  // namespace qm::test
