// Admission of peers and the handling of their events: what the listener does with each new connection.
#pragma once

#include <memory>

#include "daemon/request_queue.hpp"
#include "foundation/block.hpp"
#include "platform/xpc.hpp"
#include "reputation/QMRReputationProtocol.hpp"

class QRMXPCConnectionValidator;

// What the listener's handler needs for each peer. The validator says who is admitted, the factory makes the
// peer's own provider (null when there is none).
struct ListenerContext {
  std::shared_ptr<QRMXPCConnectionValidator> validator;
  qm::Block<std::shared_ptr<QMRReputationProtocol>()> makeProvider;
  RequestQueue requestHandlingQueue;
};

// The listener's event handler. Every event that is not null is taken as a peer connection.
void handle_listener_event(const ListenerContext& context, const qm::XPCObject& event);

// The same on a queue of the event's own, and back at once: a peer whose program lies on a file system that
// hangs keeps no other from being admitted.
void dispatch_listener_event(const ListenerContext& context, const qm::XPCObject& event);

// The event handler of one admitted peer. The provider may be null.
void handle_peer_event(const std::shared_ptr<QMRReputationProtocol>& provider, const RequestQueue& queue,
                       const qm::XPCObject& event);
