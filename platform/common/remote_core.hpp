// What stands behind RemoteConnection and RemoteListener on every platform: their handlers, what they export,
// and the order in which they live and end. A platform derives its own from the two classes, over its
// system's calls.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/log.hpp"
#include "platform/common/thread_annotations.hpp"
#include "platform/queue.hpp"
#include "platform/remote_connection.hpp"

namespace qm {

namespace remote {

Log& remoteLog();
ErrorPtr makeRemoteError(RemoteErrorCode code, std::string text);

// Whether a value may stand in a place of the type: numbers and booleans of just that type, any object.
bool fits(RemoteType type, const Value& value);

// Gives the first reply to `send`, which goes with it, and logs further ones.
RemoteExport::Reply onlyReply(std::string selector, Block<void(const Array& values)> send);

}  // namespace remote

class RemoteConnection::Core : public std::enable_shared_from_this<Core> {
 public:
  // Whom it connects to, or who has connected.
  enum class Kind : std::uint8_t { service, endpoint, client };

  // What cannot be sent is reported on the queue.
  Core(Kind kind, std::string serviceName, Queue failureQueue);
  virtual ~Core() = default;
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  // The connection with this core.
  std::shared_ptr<RemoteConnection> makeConnection();

  void setRemoteObjectInterface(RemoteInterface interface);
  RemoteInterface remoteObjectInterface() const;
  void setExport(RemoteExport exported);
  void setInterruptionHandler(Block<void()> handler);
  void setInvalidationHandler(Block<void()> handler);
  void resume();
  void invalidate();
  // The last reference to the connection is gone.
  void abandon();
  virtual AuditToken auditToken() const = 0;
  virtual std::string description() const = 0;

  // A call of a proxy. Synchronous: the reply or the error handler has run when it was invoked.
  struct Call {
    std::string selector;
    RemoteProxy::ReplyHandler reply;
    ErrorHandler errorHandler;
    bool isSynchronous = false;
  };
  void invoke(Call call, const Array& arguments);

 protected:
  // A method of an interface, kept with it.
  using Method = std::shared_ptr<const RemoteMethodSignature>;
  // What the other side calls: the method and its handler, kept with the export. Null together.
  struct ExportedMethod {
    Method method;
    std::shared_ptr<const RemoteExport::Handler> handler;
  };

  // The system's calls, made with no lock held.
  // False: it cannot take the interface, and the connection is left without one.
  virtual bool declareRemote(const RemoteInterface& /*interface*/) { return true; }
  virtual bool declareExport(const RemoteInterface& /*interface*/) { return true; }
  virtual void start() = 0;
  virtual void end() = 0;
  // For good, silently; outstanding calls are still answered.
  virtual void giveUp(bool wasResumed) = 0;
  virtual void send(Call call, const Method& method, const Array& arguments) = 0;

  // What the system reports, on the connection's queue.
  void interrupted();
  void invalidated();  // the last
  // None behind the end.
  ExportedMethod exportedMethod(std::string_view selector) const;

  // Gives the error to the call's handler: on this thread for a synchronous one, else on the queue.
  void fail(const Call& call, ErrorPtr error) const;

  bool isEnding() const;
  Kind kind() const { return kind_; }
  const std::string& serviceName() const { return serviceName_; }
  std::string peerText() const;  // connection to service named X
  ErrorPtr interruptedError() const;
  ErrorPtr invalidError() const;
  ErrorPtr cannotSendError(const std::string& selector, const std::string& reason) const;

 private:
  // Why it is invalid.
  enum class Ending : std::uint8_t { none, here, elsewhere };

  struct Handlers {
    std::shared_ptr<const RemoteExport> exported;
    Block<void()> interruption;
    Block<void()> invalidation;
  };
  // The end: hands out what was set, so that it goes when no lock is held.
  Handlers finish(Ending why) QM_REQUIRES(mutex_);

  const Kind kind_;
  const std::string serviceName_;
  const Queue failureQueue_;
  std::weak_ptr<RemoteConnection> owner_;

  mutable Mutex mutex_;
  std::shared_ptr<const RemoteInterface> interface_ QM_GUARDED_BY(mutex_);
  Handlers handlers_ QM_GUARDED_BY(mutex_);
  bool isResumed_ QM_GUARDED_BY(mutex_) = false;
  bool hasEnded_ QM_GUARDED_BY(mutex_) = false;  // the invalidation handler was called
  Ending ending_ QM_GUARDED_BY(mutex_) = Ending::none;
  // A client's connection, and one that was invalidated, lives until its last handler, whoever holds it.
  std::shared_ptr<RemoteConnection> self_ QM_GUARDED_BY(mutex_);
};

class RemoteListener::Core {
 public:
  Core() = default;
  virtual ~Core() = default;
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  void setDelegate(Delegate delegate);
  void resume(std::weak_ptr<RemoteListener> owner);
  void invalidate();
  virtual XPCEndpoint endpoint() const = 0;
  virtual std::string description() const = 0;

 protected:
  virtual void start() = 0;
  virtual void stop() = 0;

  // On the listener's queue: whether the delegate admits it; without one nobody is.
  bool admits(const std::shared_ptr<RemoteConnection>& connection);
  // Refuses whoever comes from now on, and lets the delegate go.
  void refuse();

 private:
  Mutex mutex_;
  std::weak_ptr<RemoteListener> owner_ QM_GUARDED_BY(mutex_);
  Delegate delegate_ QM_GUARDED_BY(mutex_);
  bool isInvalid_ QM_GUARDED_BY(mutex_) = false;
};

}  // namespace qm
