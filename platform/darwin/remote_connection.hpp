// A remote connection: one of the framework's. For sources in Objective-C++.
#pragma once

#import <Foundation/Foundation.h>

#include <atomic>
#include <memory>
#include <string>

#include "foundation/property.hpp"
#include "platform/common/remote_core.hpp"
#include "platform/darwin/remote_methods.hpp"

namespace qm::remote {

class Connection final : public RemoteConnection::Core {
 public:
  static std::shared_ptr<RemoteConnection> create(Kind kind, std::string serviceName,
                                                  NSXPCConnection* connection);

  // The framework's connection, as long as it or a call on it is used. It must be invalidated before its last
  // release.
  class Session {
   public:
    Session(NSXPCConnection* its, bool isOffered) : connection(its), isOffered_(isOffered) {}
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Both do nothing the second time. What was sent before the end is still delivered.
    void resume();
    void invalidate();
    // The framework has invalidated it.
    void ended() { isInvalidated_ = true; }

    NSXPCConnection* const connection;

   private:
    const bool isOffered_;
    std::atomic<bool> isResumed_{false};
    std::atomic<bool> isInvalidated_{false};
  };

  Connection(Kind kind, std::string serviceName, std::shared_ptr<Session> session);

  AuditToken auditToken() const override;
  std::string description() const override;

 private:
  bool declareRemote(const RemoteInterface& interface) override;
  bool declareExport(const RemoteInterface& interface) override;
  void start() override { session_.get()->resume(); }
  void end() override;
  void giveUp(bool wasResumed) override;
  void send(Call call, const Method& method, const Array& arguments) override;

  void request(const std::shared_ptr<Session>& session, Caller caller, const Call& call, const Method& method,
               const Array& arguments);
  void requestSync(const std::shared_ptr<Session>& session, Caller caller, const Call& call,
                   const Method& method, const Array& arguments);
  // On the connection's queue.
  void received(const ReceivedCall& call) const;

  Property<std::shared_ptr<Session>> session_;  // null when it is abandoned
  AuditToken client_;  // who has connected, asked before somebody else can be told instead
};

}  // namespace qm::remote
