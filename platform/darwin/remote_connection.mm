#include "platform/remote_connection.hpp"

#include <optional>
#include <utility>

#include "foundation/log.hpp"
#include "platform/darwin/foundation_value.hpp"
#include "platform/darwin/remote_core.hpp"
#include "platform/darwin/remote_endpoint.hpp"
#include "platform/darwin/remote_methods.hpp"
#include "platform/queue.hpp"

namespace qm {
namespace {

using Session = RemoteConnection::Core::Session;

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "remote");
  return log;
}

ErrorPtr makeRemoteError(RemoteErrorCode code, std::string text) {
  return makeError(kCocoaErrorDomain, static_cast<std::int64_t>(code),
                   {{kDebugDescriptionKey, std::move(text)}});
}

ErrorPtr cannotCall(const std::string& selector, const std::string& reason) {
  QM_LOG_ERROR(log(), "Cannot call %{public}s: %{public}s", selector, reason);
  return makeRemoteError(RemoteErrorCode::replyInvalid, "cannot call " + selector + ": " + reason);
}

// The reply with the values of the interface's types; nothing when one is missing or of another type.
std::optional<Array> checkedReply(const RemoteMethodSignature& method, const remote::ReplyValues& values) {
  Array result;
  for (const std::optional<Value>& value : values)
    if (value) result.push_back(*value);
  return remote::fit(*method.reply, result) ? std::optional(std::move(result)) : std::nullopt;
}

// Nothing for a one-way method.
remote::ReplyHandler replyHandler(const RemoteConnection::Core::Call& call,
                                  const RemoteMethodSignature& method,
                                  const std::shared_ptr<Session>& session) {
  if (!method.reply) return nullptr;
  // The session stays until its outstanding calls are answered.
  return [call, method, session](const remote::ReplyValues& values) {
    if (const std::optional<Array> reply = checkedReply(method, values)) {
      if (call.reply) call.reply(*reply);
      return;
    }
    QM_LOG_ERROR(log(), "The reply to %{public}s is not what the interface allows", call.selector);
    if (call.errorHandler)
      call.errorHandler(
          makeRemoteError(RemoteErrorCode::replyInvalid,
                          "the reply to " + call.selector + " is not what the interface allows"));
  };
}

id proxyFor(const RemoteConnection::Core::Call& call, const std::shared_ptr<Session>& session) {
  const RemoteConnection::ErrorHandler handler = call.errorHandler;
  const std::shared_ptr<Session> kept = session;
  void (^failed)(NSError*) = ^(NSError* error) {
    (void)kept;
    if (handler) handler(errorFrom(error));
  };
  return call.isSynchronous ? [session->connection synchronousRemoteObjectProxyWithErrorHandler:failed]
                            : [session->connection remoteObjectProxyWithErrorHandler:failed];
}

}  // namespace

std::shared_ptr<RemoteConnection> RemoteConnection::Core::create(NSXPCConnection* connection,
                                                                 bool isOffered) {
  const auto core = std::make_shared<Core>(std::make_shared<Session>(connection, isOffered), isOffered);
  auto result = std::make_shared<RemoteConnection>(core);
  core->owner_ = result;
  const std::weak_ptr<Core> weak = core;
  connection.interruptionHandler = ^{
    if (const auto self = weak.lock()) self->interrupted();
  };
  connection.invalidationHandler = ^{
    if (const auto self = weak.lock()) self->invalidated();
  };
  return result;
}

void RemoteConnection::Core::Session::resume() {
  // More resumes than suspends are an error.
  if (!isResumed_.exchange(true)) [connection resume];
}

void RemoteConnection::Core::Session::invalidate() {
  // One that was never active must not be released; the listener takes care of those that it offers. Nobody
  // is called meanwhile.
  if (!isOffered_ && !isResumed_.exchange(true)) {
    connection.exportedObject = nil;
    [connection resume];
  }
  [connection invalidate];
}

RemoteConnection::Core::Core(std::shared_ptr<Session> session, bool isOffered)
    : isOffered_(isOffered), session_(std::move(session)) {}

std::shared_ptr<Session> RemoteConnection::Core::session() const {
  const std::lock_guard lock(mutex_);
  return session_;
}

void RemoteConnection::Core::setRemoteObjectInterface(RemoteInterface interface) {
  auto shared = std::make_shared<const RemoteInterface>(std::move(interface));
  const std::shared_ptr<Session> its = session();
  @autoreleasepool {
    its->connection.remoteObjectInterface = remote::frameworkInterface(*shared);
  }
  const std::lock_guard lock(mutex_);
  interface_.swap(shared);
}

RemoteInterface RemoteConnection::Core::remoteObjectInterface() const {
  const std::lock_guard lock(mutex_);
  return interface_ ? *interface_ : RemoteInterface();
}

void RemoteConnection::Core::setExport(RemoteExport exported) const {
  const std::shared_ptr<Session> its = session();
  @autoreleasepool {
    its->connection.exportedInterface = remote::frameworkInterface(exported.interface());
    its->connection.exportedObject = remote::exportedObject(std::move(exported));
  }
}

void RemoteConnection::Core::setInterruptionHandler(Block<void()> handler) {
  const std::lock_guard lock(mutex_);
  if (!hasEnded_) std::swap(interruptionHandler_, handler);
}

void RemoteConnection::Core::setInvalidationHandler(Block<void()> handler) {
  const std::lock_guard lock(mutex_);
  if (!hasEnded_) std::swap(invalidationHandler_, handler);
}

void RemoteConnection::Core::resume() {
  std::shared_ptr<Session> its;
  {
    const std::lock_guard lock(mutex_);
    if (isInvalidated_) return;
    if (isOffered_) self_ = owner_.lock();
    its = session_;
  }
  its->resume();
}

void RemoteConnection::Core::invalidate() {
  std::shared_ptr<Session> its;
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(isInvalidated_, true) || hasEnded_) return;
    self_ = owner_.lock();
    its = session_;
  }
  its->invalidate();
}

void RemoteConnection::Core::abandon() {
  std::shared_ptr<Session> released;
  Block<void()> interruption;
  Block<void()> invalidation;
  const std::lock_guard lock(mutex_);
  hasEnded_ = true;
  std::swap(released, session_);
  std::swap(interruption, interruptionHandler_);
  std::swap(invalidation, invalidationHandler_);
}

void RemoteConnection::Core::interrupted() {
  Block<void()> handler;
  {
    const std::lock_guard lock(mutex_);
    if (!isInvalidated_) handler = interruptionHandler_;
  }
  if (handler) handler();
}

// The last that the framework calls.
void RemoteConnection::Core::invalidated() {
  std::shared_ptr<RemoteConnection> self;
  Block<void()> interruption;
  Block<void()> invalidation;
  {
    const std::lock_guard lock(mutex_);
    isInvalidated_ = true;
    hasEnded_ = true;
    self = std::move(self_);
    std::swap(interruption, interruptionHandler_);
    std::swap(invalidation, invalidationHandler_);
  }
  if (invalidation) invalidation();
}

// What the framework's public interface tells.
AuditToken RemoteConnection::Core::auditToken() const {
  AuditToken token;
  const std::shared_ptr<Session> its = session();
  if (its == nullptr || its->connection.processIdentifier == 0) return token;
  token.words[1] = its->connection.effectiveUserIdentifier;
  token.words[2] = its->connection.effectiveGroupIdentifier;
  token.words[5] = static_cast<std::uint32_t>(its->connection.processIdentifier);
  token.words[6] = static_cast<std::uint32_t>(its->connection.auditSessionIdentifier);
  return token;
}

std::string RemoteConnection::Core::description() const {
  const std::shared_ptr<Session> its = session();
  @autoreleasepool {
    return its == nullptr ? "(ended)" : textFrom(its->connection.description);
  }
}

void RemoteConnection::Core::fail(const Call& call, ErrorPtr error) {
  if (!call.errorHandler) return;
  if (call.isSynchronous) return call.errorHandler(error);
  // The connection's own queue is the framework's; nobody waits for a call that was not sent in its order.
  Queue::global().async([handler = call.errorHandler, error = std::move(error)] { handler(error); });
}

void RemoteConnection::Core::invoke(const Call& call, const Array& arguments) const {
  std::shared_ptr<Session> its;
  std::shared_ptr<const RemoteInterface> interface;
  {
    const std::lock_guard lock(mutex_);
    its = session_;
    interface = interface_;
  }
  if (its == nullptr)
    return fail(call, makeRemoteError(RemoteErrorCode::invalid, "the connection was given up"));
  const RemoteMethodSignature* method = interface ? interface->method(call.selector) : nullptr;
  const remote::Caller caller = remote::callerFor(call.selector);
  if (method == nullptr || caller == nullptr)
    return fail(call, cannotCall(call.selector, "it is not in the interface of the remote object"));
  if (!remote::fit(method->arguments, arguments))
    return fail(call, cannotCall(call.selector, "an argument is of another type than the interface says"));
  std::string raised;
  @autoreleasepool {
    @try {
      caller(proxyFor(call, its), arguments, replyHandler(call, *method, its));
    } @catch (NSException* exception) {
      raised = textFrom(exception.reason);
      if (raised.empty()) raised = "an exception without a reason";
    }
  }
  // The framework raises before it sends: neither the reply nor the error handler is called any more.
  if (!raised.empty()) fail(call, cannotCall(call.selector, raised));
}

void RemoteProxy::invoke(std::string_view selector, Array arguments, ReplyHandler reply) const {
  if (target_) target_->invoke(selector, arguments, std::move(reply));
}

std::shared_ptr<RemoteConnection> RemoteConnection::createWithMachServiceName(std::string_view name,
                                                                              std::uint64_t options) {
  @autoreleasepool {
    return Core::create(
        [[NSXPCConnection alloc] initWithMachServiceName:stringFrom(name)
                                                 options:static_cast<NSXPCConnectionOptions>(options)],
        false);
  }
}

std::shared_ptr<RemoteConnection> RemoteConnection::createWithListenerEndpoint(const XPCEndpoint& endpoint) {
  // Without an endpoint of remote calls: one whose listener is gone, so that the connection becomes invalid.
  const XPCEndpoint used =
      remote::heldEndpoint(endpoint) == nullptr ? RemoteListener::anonymousListener()->endpoint() : endpoint;
  @autoreleasepool {
    auto* its = (__bridge NSXPCListenerEndpoint*)remote::heldEndpoint(used);
    return Core::create([[NSXPCConnection alloc] initWithListenerEndpoint:its], false);
  }
}

RemoteConnection::RemoteConnection(std::shared_ptr<Core> core) : core_(std::move(core)) {}

RemoteConnection::~RemoteConnection() {
  core_->abandon();
}

void RemoteConnection::setRemoteObjectInterface(RemoteInterface interface) {
  core_->setRemoteObjectInterface(std::move(interface));
}
RemoteInterface RemoteConnection::remoteObjectInterface() const {
  return core_->remoteObjectInterface();
}
void RemoteConnection::setExport(RemoteExport exported) {
  core_->setExport(std::move(exported));
}
void RemoteConnection::setInterruptionHandler(Block<void()> handler) {
  core_->setInterruptionHandler(std::move(handler));
}
void RemoteConnection::setInvalidationHandler(Block<void()> handler) {
  core_->setInvalidationHandler(std::move(handler));
}
void RemoteConnection::resume() {
  core_->resume();
}
void RemoteConnection::invalidate() {
  core_->invalidate();
}

RemoteProxy RemoteConnection::remoteObjectProxyWithErrorHandler(ErrorHandler handler) {
  return RemoteProxy(std::make_shared<RemoteProxy::Target>(core_, std::move(handler), false));
}

RemoteProxy RemoteConnection::synchronousRemoteObjectProxyWithErrorHandler(ErrorHandler handler) {
  return RemoteProxy(std::make_shared<RemoteProxy::Target>(core_, std::move(handler), true));
}

AuditToken RemoteConnection::auditToken() const {
  return core_->auditToken();
}
std::string RemoteConnection::description() const {
  return core_->description();
}

}  // namespace qm
