// What stands behind a RemoteConnection: one of the framework's connections. For sources in Objective-C++.
#pragma once

#import <Foundation/Foundation.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/remote_connection.hpp"

namespace qm {

class RemoteConnection::Core final : public std::enable_shared_from_this<Core> {
 public:
  // The connection with its core. One that a listener offers keeps itself, once it is resumed, until it is
  // invalid.
  static std::shared_ptr<RemoteConnection> create(NSXPCConnection* connection, bool isOffered);

  // The framework's connection, as long as it or a call on it is used. A connection must be invalidated
  // before its last release.
  class Session {
   public:
    Session(NSXPCConnection* its, bool isOffered) : connection(its), isOffered_(isOffered) {}
    ~Session() { invalidate(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Both do nothing the second time.
    void resume();
    void invalidate();

    NSXPCConnection* const connection;

   private:
    const bool isOffered_;
    std::atomic<bool> isResumed_{false};
  };

  Core(std::shared_ptr<Session> session, bool isOffered);

  void setRemoteObjectInterface(RemoteInterface interface);
  RemoteInterface remoteObjectInterface() const;
  void setExport(RemoteExport exported) const;
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
  void invoke(const Call& call, const Array& arguments) const;

 private:
  std::shared_ptr<Session> session() const;
  // Gives the error to the call's handler: on this thread for a synchronous one, else on a queue.
  static void fail(const Call& call, ErrorPtr error);

  // On the connection's queue.
  void interrupted();
  void invalidated();

  const bool isOffered_;
  std::weak_ptr<RemoteConnection> owner_;

  mutable std::mutex mutex_;
  std::shared_ptr<Session> session_;  // null when it is abandoned
  std::shared_ptr<const RemoteInterface> interface_;
  Block<void()> interruptionHandler_;
  Block<void()> invalidationHandler_;
  bool hasEnded_ = false;  // the invalidation handler was called, or nobody wants to hear of it
  bool isInvalidated_ = false;
  std::shared_ptr<RemoteConnection> self_;
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
