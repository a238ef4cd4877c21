#include "daemon/peers.hpp"

#include "daemon/daemon_log.hpp"
#include "daemon/request_protocol.hpp"
#include "platform/activity.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

using qm::ErrorPtr;
using qm::XPCConnection;
using qm::XPCDictionary;
using qm::XPCObject;

namespace {

// Pushes an answer that is not the direct reply to a request. Holds the connection until the provider, which
// the connection's handler holds, is released with that handler at the connection's end.
void install_delayed_response_callback(QMRReputationProtocol& provider, const XPCConnection& peer) {
  provider.setDelayedResponseCallback(
      [peer](const std::shared_ptr<const QMRFileReputationResult>& result, const ErrorPtr& error) {
        const XPCDictionary response = reputation_response_to_xpc_object(result, error);
        QM_LOG(daemon_log(), "Forwarding delayed reputation response %@", response);
        peer.sendMessage(response);
      });
}

}  // namespace

void handle_listener_event(const ListenerContext& context, const XPCObject& event) {
  if (!event) {
    QM_LOG_ERROR(daemon_log(), "Received null event object in listener event handler, ignoring");
    return;
  }
  QM_LOG_DEBUG(daemon_log(), "Got connection: %s", event.description());
  const XPCConnection peer = event.asConnection();
  const std::int32_t pid = peer.processID();
  if (!context.validator->codesignValidForAuditToken(peer.auditToken(), pid)) {
    QM_LOG_ERROR(daemon_log(), "Code signature validation failed for pid %d", pid);
    peer.cancel();
    return;
  }
  const std::shared_ptr<QMRReputationProtocol> provider = context.makeProvider();
  if (provider) {
    provider->addBaseMetadataValue("local_file", "context");
    QM_LOG_DEBUG(daemon_log(), "==== Will use reputation provider %@", provider);
    install_delayed_response_callback(*provider, peer);
  } else {
    QM_LOG_ERROR(daemon_log(), "No reputation provider available!");
  }
  const RequestQueue queue = context.requestHandlingQueue.forPeer();
  peer.setEventHandler(
      [provider, queue](const XPCObject& peer_event) { handle_peer_event(provider, queue, peer_event); });
  peer.activate();
}

void dispatch_listener_event(const ListenerContext& context, const XPCObject& event) {
  // Serial, because an admission that blocks must not take a concurrent worker from the requests.
  qm::Queue::serial("com.quillmarsh.admission").async([context, event] {
    handle_listener_event(context, event);
  });
}

void handle_peer_event(const std::shared_ptr<QMRReputationProtocol>& provider, const RequestQueue& queue,
                       const XPCObject& event) {
  if (!event) {
    QM_LOG_ERROR(daemon_log(), "Received null event object in connection event handler, ignoring");
    return;
  }
  if (event.type() != qm::XPCType::dictionary) {
    QM_LOG_ERROR(daemon_log(), "Error: %{public}s", event.description());
    return;
  }
  qm::initiateActivity("Handle incoming XPC message", [&] {
    QM_LOG_DEBUG(daemon_log(), "Got XPC message: %s", event.description());
    process_message(provider, event.asDictionary(), queue);
  });
}
