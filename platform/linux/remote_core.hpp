// What stands behind a RemoteConnection: one connection of the transport on a serial queue of its own.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/log.hpp"
#include "platform/common/thread_annotations.hpp"
#include "platform/linux/xpc_connection.hpp"
#include "platform/remote_connection.hpp"

namespace qm {

namespace remote {

Log& remoteLog();

}  // namespace remote

class RemoteConnection::Core final : public std::enable_shared_from_this<Core> {
 public:
  // Whom it connects to, or who has connected.
  enum class Kind : std::uint8_t { service, endpoint, client };

  // A connection's own.
  static Queue makeQueue();
  // The connection with its core; the transport's must not be active yet, and its handlers run on the queue.
  static std::shared_ptr<RemoteConnection> create(Kind kind, std::string serviceName, const Queue& queue,
                                                  std::shared_ptr<xpc::Connection> transport);
  Core(Kind kind, std::string serviceName, const Queue& queue, std::shared_ptr<xpc::Connection> transport);

  void setRemoteObjectInterface(RemoteInterface interface);
  RemoteInterface remoteObjectInterface() const;
  void setExport(RemoteExport exported);
  void setInterruptionHandler(Block<void()> handler);
  void setInvalidationHandler(Block<void()> handler);
  void resume();
  void invalidate();
  // The last reference to the connection is gone.
  void abandon();
  AuditToken auditToken() const;
  std::string description() const;

  // A call of a proxy. Synchronous: the reply or the error handler has run when this returns.
  struct Call {
    std::string selector;
    RemoteProxy::ReplyHandler reply;
    ErrorHandler errorHandler;
    bool isSynchronous = false;
  };
  void invoke(Call call, const Array& arguments);

 private:
  // Why it is invalid.
  enum class Ending : std::uint8_t { none, here, elsewhere };
  // A method of the remote interface, kept with the interface.
  using Method = std::shared_ptr<const RemoteMethodSignature>;

  std::shared_ptr<xpc::Connection> transport() const;
  Method remoteMethod(std::string_view selector) const;

  void request(Call call, const Method& method, xpc::EncodedMessage message);
  void sendOneWay(const Call& call, xpc::EncodedMessage message);
  void answered(const Call& call, const RemoteMethodSignature& method, const XPCObject& answer);
  // Gives the error to the call's handler: on this thread for a synchronous one, else on the queue.
  void fail(const Call& call, ErrorPtr error) const;

  // On the queue.
  void received(const XPCObject& event);
  void receivedCall(const XPCDictionary& message);
  void dropUndecodable(const std::string& selector, const ErrorPtr& failure) const;
  void interrupted();
  void invalidated();

  std::string peerText() const;  // connection to service named X
  ErrorPtr interruptedError() const;
  ErrorPtr invalidError() const;
  ErrorPtr unansweredError(const XPCObject& error) const;
  ErrorPtr replyInvalidError(ErrorPtr underlying) const;
  ErrorPtr cannotSendError(const std::string& selector, const std::string& reason) const;

  const Kind kind_;
  const std::string serviceName_;
  const Queue queue_;
  std::weak_ptr<RemoteConnection> owner_;

  mutable Mutex mutex_;
  std::shared_ptr<xpc::Connection> transport_ QM_GUARDED_BY(mutex_);  // null when it is abandoned
  std::shared_ptr<const RemoteInterface> interface_ QM_GUARDED_BY(mutex_);
  std::shared_ptr<const RemoteExport> export_ QM_GUARDED_BY(mutex_);
  Block<void()> interruptionHandler_ QM_GUARDED_BY(mutex_);
  Block<void()> invalidationHandler_ QM_GUARDED_BY(mutex_);
  bool isResumed_ QM_GUARDED_BY(mutex_) = false;
  bool hasEnded_ QM_GUARDED_BY(mutex_) = false;  // the invalidation handler was called
  Ending ending_ QM_GUARDED_BY(mutex_) = Ending::none;
  // A client's connection, and one that was invalidated, lives until its last handler, whoever holds it.
  std::shared_ptr<RemoteConnection> self_ QM_GUARDED_BY(mutex_);
};

class RemoteProxy::Target {
 public:
  Target(std::shared_ptr<RemoteConnection::Core> core, RemoteConnection::ErrorHandler errorHandler,
         bool isSynchronous)
      : core_(std::move(core)), errorHandler_(std::move(errorHandler)), isSynchronous_(isSynchronous) {}

  void invoke(std::string_view selector, const Array& arguments, ReplyHandler reply) const {
    core_->invoke({.selector = std::string(selector),
                   .reply = std::move(reply),
                   .errorHandler = errorHandler_,
                   .isSynchronous = isSynchronous_},
                  arguments);
  }

 private:
  const std::shared_ptr<RemoteConnection::Core> core_;
  const RemoteConnection::ErrorHandler errorHandler_;
  const bool isSynchronous_;
};

}  // namespace qm
