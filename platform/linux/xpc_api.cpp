// The functions of platform/xpc.hpp that need a connection.
#include "platform/linux/xpc_connection.hpp"

namespace qm {

using namespace xpc;

XPCDictionary XPCDictionary::createReply() const {
  const DictionaryRepresentation* request = xpc::asDictionary(*this);
  if (request == nullptr || !request->obligation || request->isReply || !request->obligation->claim())
    return {};
  const auto reply = std::make_shared<DictionaryRepresentation>();
  reply->remote = request->remote;
  reply->obligation = request->obligation;
  reply->isReply = true;
  return XPCDictionary(reply);
}

XPCConnection XPCConnection::createListener(std::string_view serviceName, Queue targetQueue) {
  return XPCConnection(xpc::createListener(std::string(serviceName), targetQueue));
}

XPCConnection XPCConnection::createAnonymousListener(Queue targetQueue) {
  return XPCConnection(xpc::createAnonymousListener(targetQueue));
}

XPCConnection XPCConnection::createClient(std::string_view serviceName, Queue targetQueue) {
  return XPCConnection(Connection::createNamedClient(std::string(serviceName), targetQueue));
}

XPCConnection XPCConnection::createClient(const XPCEndpoint& endpoint, Queue targetQueue) {
  return XPCConnection(Connection::createEndpointClient(endpoint, targetQueue));
}

XPCEndpoint XPCConnection::endpoint() const {
  return representation_ ? coreOf(*this).endpoint() : XPCEndpoint();
}

void XPCConnection::setEventHandler(EventHandler handler) const {
  if (representation_) coreOf(*this).setEventHandler(std::move(handler));
}

void XPCConnection::activate() const {
  if (representation_) coreOf(*this).activate();
}

void XPCConnection::cancel() const {
  if (representation_) coreOf(*this).cancel();
}

void XPCConnection::sendMessage(const XPCDictionary& message) const {
  if (representation_) coreOf(*this).sendMessage(message);
}

void XPCConnection::sendMessageWithReply(const XPCDictionary& message, const Queue& queue,
                                         ReplyHandler handler, std::chrono::milliseconds timeout) const {
  if (representation_) return coreOf(*this).sendMessageWithReply(message, queue, std::move(handler), timeout);
  (queue ? queue : Queue::global()).async([handler = std::move(handler)] {
    handler(xpcErrorConnectionInvalid());
  });
}

XPCObject XPCConnection::sendMessageWithReplySync(const XPCDictionary& message) const {
  return representation_ ? coreOf(*this).sendMessageWithReplySync(message) : xpcErrorConnectionInvalid();
}

void XPCConnection::sendBarrier(Block<void()> block) const {
  if (representation_) coreOf(*this).sendBarrier(std::move(block));
}

AuditToken XPCConnection::auditToken() const {
  return representation_ ? coreOf(*this).auditToken() : AuditToken();
}

namespace xpc {

std::string describeConnection(const XPCConnection& connection) {
  return coreOf(connection).description();
}

}  // namespace xpc
}  // namespace qm
