#include "platform/darwin/remote_connection.hpp"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "platform/darwin/foundation_value.hpp"
#include "platform/darwin/raised_exception.hpp"
#include "platform/darwin/remote_endpoint.hpp"

// The class has it, but no public header does, as it is with the call of libxpc for the same (see
// xpc_connection.cpp). It is asked only where it is there.
@interface NSXPCConnection (QMRAuditToken)
@property(readonly) audit_token_t auditToken;
@end

namespace qm::remote {
namespace {

using Session = Connection::Session;

// A peer that does not take what was sent to it does not keep a connection from its end for longer.
constexpr std::chrono::seconds kLongestWaitForPeer{1};

// Zeros as long as nobody is known. Without the whole token there is what the public interface tells; no
// signature can be checked by that.
AuditToken tokenOf(NSXPCConnection* connection) {
  AuditToken token;
  if (connection.processIdentifier == 0) return token;
  if ([connection respondsToSelector:@selector(auditToken)]) {
    const audit_token_t whole = connection.auditToken;
    static_assert(sizeof whole == sizeof(AuditToken));
    std::copy_n(whole.val, token.words.size(), token.words.begin());
    return token;
  }
  token.words[1] = connection.effectiveUserIdentifier;
  token.words[2] = connection.effectiveGroupIdentifier;
  token.words[5] = static_cast<std::uint32_t>(connection.processIdentifier);
  token.words[6] = static_cast<std::uint32_t>(connection.auditSessionIdentifier);
  return token;
}

void replied(const RemoteConnection::Core::Call& call, const RemoteMethodSignature& method,
             const ConvertedValues& values) {
  if (const std::optional<Array> reply = fitting(*method.reply, values)) {
    if (call.reply) call.reply(*reply);
    return;
  }
  QM_LOG_ERROR(remoteLog(), "The reply to %{public}s is not what the interface allows", call.selector);
  if (call.errorHandler)
    call.errorHandler(makeRemoteError(RemoteErrorCode::replyInvalid,
                                      "the reply to " + call.selector + " is not what the interface allows"));
}

bool isTaken(const RemoteInterface& interface, NSXPCInterface* its,
             const std::optional<std::string>& raised) {
  if (raised)
    QM_LOG_FAULT(remoteLog(), "The interface %{public}s cannot be used: %{public}s", interface.protocolName(),
                 *raised);
  return its != nil && !raised;
}

}  // namespace

Session::~Session() {
  // The listener takes care of one that it offered and that nobody wanted.
  if (isOffered_ && !isResumed_)
    [connection invalidate];
  else
    invalidate();
}

void Session::resume() {
  // More resumes than suspends are an error.
  if (!isResumed_.exchange(true)) [connection resume];
}

void Session::invalidate() {
  if (isInvalidated_.exchange(true)) return;
  NSXPCConnection* its = connection;
  // One that was never active must not be released, nor would its handler be called.
  if (!isResumed_.exchange(true)) {
    [its resume];
    return [its invalidate];
  }
  [its scheduleSendBarrierBlock:^{
    [its invalidate];
  }];
  Queue::global().after(kLongestWaitForPeer, [its] { [its invalidate]; });
}

std::shared_ptr<RemoteConnection> Connection::create(Kind kind, std::string serviceName,
                                                     NSXPCConnection* connection) {
  const auto session = std::make_shared<Session>(connection, kind == Kind::client);
  const auto core = std::make_shared<Connection>(kind, std::move(serviceName), session);
  const std::weak_ptr<Connection> weak = core;
  const std::weak_ptr<Session> weakSession = session;
  connection.interruptionHandler = ^{
    if (const auto self = weak.lock()) self->interrupted();
  };
  connection.invalidationHandler = ^{
    if (const auto its = weakSession.lock()) its->ended();
    if (const auto self = weak.lock()) self->invalidated();
  };
  return core->makeConnection();
}

// The framework tells nobody the queue of a connection.
Connection::Connection(Kind kind, std::string serviceName, std::shared_ptr<Session> session)
    : Core(kind, std::move(serviceName), Queue::global()), session_(std::move(session)) {
  if (kind == Kind::client) client_ = tokenOf(session_.get()->connection);
}

AuditToken Connection::auditToken() const {
  if (kind() == Kind::client) return client_;
  const auto session = session_.get();
  return session == nullptr ? AuditToken() : tokenOf(session->connection);
}

std::string Connection::description() const {
  const auto session = session_.get();
  @autoreleasepool {
    return session == nullptr ? "(ended)" : textFrom(session->connection.description);
  }
}

bool Connection::declareRemote(const RemoteInterface& interface) {
  NSXPCInterface* its = nil;
  const std::optional<std::string> raised = reasonRaisedBy([&] {
    its = frameworkInterface(interface);
    session_.get()->connection.remoteObjectInterface = its;
  });
  return isTaken(interface, its, raised);
}

bool Connection::declareExport(const RemoteInterface& interface) {
  NSXPCInterface* its = nil;
  const std::weak_ptr<const Core> weak = weak_from_this();
  const std::optional<std::string> raised = reasonRaisedBy([&] {
    NSXPCConnection* connection = session_.get()->connection;
    its = frameworkInterface(interface);
    connection.exportedInterface = its;
    connection.exportedObject = exportedObject([weak](const ReceivedCall& call) {
      if (const auto self = weak.lock()) static_cast<const Connection&>(*self).received(call);
    });
  });
  return isTaken(interface, its, raised);
}

void Connection::end() {
  if (const auto session = session_.get()) session->invalidate();
}

void Connection::giveUp(bool /*wasResumed*/) {
  session_.set(nullptr);
}

void Connection::send(Call call, const Method& method, const Array& arguments) {
  const auto session = session_.get();
  if (session == nullptr || isEnding()) return fail(call, invalidError());
  const Caller caller = callerFor(call.selector);
  if (caller == nullptr)
    return fail(call, cannotSendError(call.selector, "it is none of the remote methods"));
  if (!fit(method->arguments, arguments))
    return fail(call,
                cannotSendError(call.selector, "an argument is of another type than the interface says"));
  if (call.isSynchronous) return requestSync(session, caller, call, method, arguments);
  request(session, caller, call, method, arguments);
}

// The session stays until its outstanding calls are answered.
void Connection::request(const std::shared_ptr<Session>& session, Caller caller, const Call& call,
                         const Method& method, const Array& arguments) {
  const std::shared_ptr<Session> kept = session;
  const RemoteConnection::ErrorHandler handler = call.errorHandler;
  void (^failed)(NSError*) = ^(NSError* error) {
    (void)kept;
    if (handler) handler(errorFrom(error));
  };
  ReplyHandler reply;
  if (method->reply)
    reply = [call, method, kept](const ConvertedValues& values) { replied(call, *method, values); };
  id proxy = nil;
  const std::optional<std::string> raised = reasonRaisedBy([&] {
    proxy = [session->connection remoteObjectProxyWithErrorHandler:failed];
    caller(proxy, arguments, reply);
  });
  // The framework raises before it sends: neither the reply nor the error handler is called any more.
  if (raised || proxy == nil)
    fail(call, cannotSendError(call.selector, raised.value_or("there is no proxy")));
}

// What comes of the call is given on when the framework's has returned.
void Connection::requestSync(const std::shared_ptr<Session>& session, Caller caller, const Call& call,
                             const Method& method, const Array& arguments) {
  struct Outcome {
    std::optional<ConvertedValues> reply;
    ErrorPtr error;
  };
  const auto outcome = std::make_shared<Outcome>();
  void (^failed)(NSError*) = ^(NSError* error) {
    outcome->error = errorFrom(error);
  };
  ReplyHandler reply;
  if (method->reply) reply = [outcome](const ConvertedValues& values) { outcome->reply = values; };
  const std::optional<std::string> raised = reasonRaisedBy([&] {
    caller([session->connection synchronousRemoteObjectProxyWithErrorHandler:failed], arguments, reply);
  });
  if (outcome->reply) return replied(call, *method, *outcome->reply);
  if (outcome->error == nullptr && (raised || method->reply))
    outcome->error = cannotSendError(call.selector, raised.value_or("there is no proxy"));
  if (outcome->error != nullptr) fail(call, outcome->error);
}

// A call whose arguments do not fit is dropped, as one is whose arguments the framework cannot decode.
void Connection::received(const ReceivedCall& call) const {
  if (isEnding()) return;
  const std::string selector(call.selector);
  const ExportedMethod called = exportedMethod(selector);
  const std::optional<Array> arguments =
      called.method ? fitting(called.method->arguments, call.arguments) : std::nullopt;
  if (!arguments) {
    QM_LOG_ERROR(remoteLog(), "Cannot take the arguments of a call of %{public}s, dropping it", selector);
    return;
  }
  if (!called.method->reply) return (*called.handler)(*arguments, nullptr);
  const auto answer = [method = called.method, reply = call.reply, selector](const Array& values) {
    if (fit(*method->reply, values)) return reply(values);
    QM_LOG_ERROR(remoteLog(),
                 "Cannot reply to %{public}s: a value is of another type than the interface says", selector);
  };
  (*called.handler)(*arguments, onlyReply(selector, answer));
}

}  // namespace qm::remote

namespace qm {

std::shared_ptr<RemoteConnection> RemoteConnection::createWithMachServiceName(std::string_view name,
                                                                              std::uint64_t options) {
  @autoreleasepool {
    return remote::Connection::create(
        Core::Kind::service, std::string(name),
        [[NSXPCConnection alloc] initWithMachServiceName:stringFrom(name)
                                                 options:static_cast<NSXPCConnectionOptions>(options)]);
  }
}

std::shared_ptr<RemoteConnection> RemoteConnection::createWithListenerEndpoint(const XPCEndpoint& endpoint) {
  // Without an endpoint of remote calls: one whose listener is gone, so that the connection becomes invalid.
  const XPCEndpoint used =
      remote::heldEndpoint(endpoint) == nullptr ? RemoteListener::anonymousListener()->endpoint() : endpoint;
  @autoreleasepool {
    auto* its = (__bridge NSXPCListenerEndpoint*)remote::heldEndpoint(used);
    return remote::Connection::create(Core::Kind::endpoint, {},
                                      [[NSXPCConnection alloc] initWithListenerEndpoint:its]);
  }
}

}  // namespace qm
