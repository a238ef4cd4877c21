// Remote calls between the product's processes: connections to a named service or an endpoint, proxies for
// the object on the other side, listeners, and objects of one's own that the other side may call.
//
// Everything a connection calls (replies, error handlers, its interruption and invalidation handlers, the
// exported object) runs on its own serial queue, one at a time, and never with a lock held. Every function
// may be called from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "platform/audit_token.hpp"
#include "platform/remote_interface.hpp"
#include "platform/xpc.hpp"

namespace qm {

// The errors of calls, of kCocoaErrorDomain.
enum class RemoteErrorCode : std::int64_t {
  // The other process ended before it replied, or dropped the call; also, of a named service, it refused the
  // connection, which can be used again.
  interrupted = 4097,
  // Nobody serves the name or listens at the endpoint any more, or the connection was invalidated.
  invalid = 4099,
  // The reply was not what the interface allows, or the call could not be sent: too large, or not as the
  // interface says.
  replyInvalid = 4101,
};

// Options of a connection to a named service.
inline constexpr std::uint64_t kRemoteConnectionPrivileged = 4096;  // look in the system's domain only

template <auto Method>
struct RemoteMethodTraits;

// The object on the other side. Cheap to copy. Does not keep the connection: once its last reference is gone,
// calls that are outstanding are still answered, and further ones fail with `invalid`.
class RemoteProxy {
 public:
  class Target;
  using ReplyHandler = Block<void(const Array& replyArguments)>;

  RemoteProxy() = default;  // nil: calls do nothing
  explicit RemoteProxy(std::shared_ptr<Target> target) : target_(std::move(target)) {}
  explicit operator bool() const { return target_ != nullptr; }

  // Calls a method of the remote interface. Of a method that replies exactly one of the reply and the proxy's
  // error handler is called, once; of a one-way method the error handler at most. Arguments that do not fit
  // the interface are a programming error, as is a selector that it does not have: the call fails with
  // replyInvalid. A synchronous proxy calls the reply or the handler on the calling thread before this
  // returns; no other thread's help but the transport's is needed for it. (But a reply behind more than a
  // thousand calls of the peer's that wait for this connection's queue is not read before they are handled.)
  // A one-way call returns when it was written.
  void invoke(std::string_view selector, Array arguments, ReplyHandler reply) const;

  // The same with the method's C++ types, see remote_protocol.hpp:
  //   proxy.call<&qmsettingsdProtocol::updateWispError>(error);
  template <auto Method, class... Arguments>
  void call(Arguments&&... arguments) const {
    RemoteMethodTraits<Method>::call(*this, std::forward<Arguments>(arguments)...);
  }

 private:
  std::shared_ptr<Target> target_;
};

class RemoteConnection {
 public:
  using ErrorHandler = Block<void(const ErrorPtr& error)>;

  // Nothing is opened before resume(); a name that nobody serves invalidates the connection after it.
  static std::shared_ptr<RemoteConnection> createWithMachServiceName(std::string_view name,
                                                                     std::uint64_t options = 0);
  static std::shared_ptr<RemoteConnection> createWithListenerEndpoint(const XPCEndpoint& endpoint);
  // For the platform layer.
  class Core;
  explicit RemoteConnection(std::shared_ptr<Core> core);
  // Ends without calling its handlers when the last reference goes; outstanding calls are still answered. One
  // that a listener admitted and that was resumed, and any that was invalidated, keeps itself until its
  // invalidation handler was called.
  ~RemoteConnection();
  RemoteConnection(const RemoteConnection&) = delete;
  RemoteConnection& operator=(const RemoteConnection&) = delete;

  // Of the object on the other side. Before the first call.
  void setRemoteObjectInterface(RemoteInterface interface);
  RemoteInterface remoteObjectInterface() const;
  // What the other side may call; nothing at the start. A call that is not in its interface is logged and
  // dropped. Before resume().
  void setExport(RemoteExport exported);

  // The other process of a named service ended; the next call reaches its successor. After the error handlers
  // of the calls that were outstanding.
  void setInterruptionHandler(Block<void()> handler);
  // The last that the connection calls. Both handlers are released after it.
  void setInvalidationHandler(Block<void()> handler);

  void resume();
  // Outstanding calls fail with `invalid`, then the invalidation handler runs; nothing is sent or received
  // from then on.
  void invalidate();

  RemoteProxy remoteObjectProxyWithErrorHandler(ErrorHandler handler);
  RemoteProxy synchronousRemoteObjectProxyWithErrorHandler(ErrorHandler handler);

  // Of the process on the other side; zeros as long as it is not known.
  AuditToken auditToken() const;
  std::int32_t processIdentifier() const { return auditToken().processID(); }
  std::uint32_t effectiveUserIdentifier() const { return auditToken().effectiveUserID(); }

  std::string description() const;

 private:
  const std::shared_ptr<Core> core_;
};

class RemoteListener : public std::enable_shared_from_this<RemoteListener> {
 public:
  // Decides about a new connection: configure and resume it (now or later: its messages wait) and return
  // true, or return false to refuse it. On the listener's own serial queue.
  using Delegate = Block<bool(const std::shared_ptr<RemoteListener>& listener,
                              const std::shared_ptr<RemoteConnection>& connection)>;

  // A service under its name. `failed` is called, once, when the name cannot be had.
  static std::shared_ptr<RemoteListener> createWithMachServiceName(std::string_view name,
                                                                   Block<void()> failed);
  static std::shared_ptr<RemoteListener> anonymousListener();
  class Core;
  explicit RemoteListener(std::shared_ptr<Core> core);
  ~RemoteListener();  // invalidates it
  RemoteListener(const RemoteListener&) = delete;
  RemoteListener& operator=(const RemoteListener&) = delete;

  // Before resume(); without one all connections are refused.
  void setDelegate(Delegate delegate);
  XPCEndpoint endpoint() const;  // of an anonymous listener
  void resume();
  // Refuses further connections and releases the delegate; those that were accepted live on.
  void invalidate();
  std::string description() const;

 private:
  const std::shared_ptr<Core> core_;
};

}  // namespace qm
