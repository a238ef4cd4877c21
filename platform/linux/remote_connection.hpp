// A remote connection: one connection of the transport on a serial queue of its own.
#pragma once

#include <memory>
#include <string>

#include "foundation/property.hpp"
#include "platform/common/remote_core.hpp"
#include "platform/linux/xpc_connection.hpp"

namespace qm::remote {

class Connection final : public RemoteConnection::Core {
 public:
  // A connection's own.
  static Queue makeQueue();
  // The transport's must not be active yet, and its handlers run on the queue.
  static std::shared_ptr<RemoteConnection> create(Kind kind, std::string serviceName, const Queue& queue,
                                                  std::shared_ptr<xpc::Connection> transport);
  Connection(Kind kind, std::string serviceName, const Queue& queue,
             std::shared_ptr<xpc::Connection> transport);

  AuditToken auditToken() const override;
  std::string description() const override;

 private:
  void start() override;
  void end() override;
  void giveUp(bool wasResumed) override;
  void send(Call call, const Method& method, const Array& arguments) override;

  void request(Call call, const Method& method, xpc::EncodedMessage message);
  void sendOneWay(const Call& call, xpc::EncodedMessage message);
  void answered(const Call& call, const RemoteMethodSignature& method, const XPCObject& answer);

  // On the queue.
  void received(const XPCObject& event);
  void receivedCall(const XPCDictionary& message);
  void dropUndecodable(const std::string& selector, const ErrorPtr& failure) const;

  ErrorPtr unansweredError(const XPCObject& error) const;
  ErrorPtr replyInvalidError(ErrorPtr underlying) const;

  const Queue queue_;
  Property<std::shared_ptr<xpc::Connection>> transport_;  // null when it is abandoned
};

}  // namespace qm::remote
