#include "platform/linux/remote_connection.hpp"

#include <utility>

#include "foundation/object_description.hpp"
#include "platform/linux/remote_coder.hpp"

namespace qm::remote {
namespace {

// When a call goes without an answer, the transport tells its caller.
void answer(XPCDictionary& reply, const std::string& selector, const std::vector<RemoteParameter>& parameters,
            const Array& values) {
  ErrorPtr error;
  const std::optional<XPCArray> arguments = encodeArguments(parameters, values, &error);
  if (!arguments) {
    QM_LOG_ERROR(remoteLog(), "Cannot reply to %{public}s: %{public}@", selector, error);
    return;
  }
  encodeReply(reply, *arguments);
  reply.remoteConnection().sendMessage(reply);
}

}  // namespace

Queue Connection::makeQueue() {
  return Queue::serial("com.quillmarsh.remote.connection");
}

std::shared_ptr<RemoteConnection> Connection::create(Kind kind, std::string serviceName, const Queue& queue,
                                                     std::shared_ptr<xpc::Connection> transport) {
  const auto core = std::make_shared<Connection>(kind, std::move(serviceName), queue, transport);
  transport->setEventHandler([weak = std::weak_ptr(core)](const XPCObject& event) {
    if (const auto self = weak.lock()) self->received(event);
  });
  return core->makeConnection();
}

Connection::Connection(Kind kind, std::string serviceName, const Queue& queue,
                       std::shared_ptr<xpc::Connection> transport)
    : Core(kind, std::move(serviceName), queue), queue_(queue), transport_(std::move(transport)) {}

void Connection::start() {
  if (const auto its = transport_.get()) its->activate();
}

void Connection::end() {
  if (const auto its = transport_.get()) its->cancel();
}

void Connection::giveUp(bool wasResumed) {
  const auto its = transport_.exchange(nullptr);
  its->setEventHandler(nullptr);
  if (!wasResumed) its->cancel();  // nobody can resume it any more
}

AuditToken Connection::auditToken() const {
  const auto its = transport_.get();
  return its ? its->auditToken() : AuditToken();
}

std::string Connection::description() const {
  return objectDescription("NSXPCConnection", this) + " " + peerText();
}

// A peer that was there and is gone has interrupted the call, also where the connection ends with it.
ErrorPtr Connection::unansweredError(const XPCObject& error) const {
  if (error == xpcErrorConnectionInterrupted()) return interruptedError();
  return isEnding() || auditToken().processID() == 0 ? invalidError() : interruptedError();
}

ErrorPtr Connection::replyInvalidError(ErrorPtr underlying) const {
  std::string text = peerText();
  if (kind() == Kind::service)
    text = "connection to service with pid " + std::to_string(auditToken().processID()) + " named " +
           serviceName();
  return makeError(kCocoaErrorDomain, static_cast<std::int64_t>(RemoteErrorCode::replyInvalid),
                   {{kDebugDescriptionKey, std::move(text)}, {kUnderlyingErrorKey, std::move(underlying)}});
}

void Connection::send(Call call, const Method& method, const Array& arguments) {
  ErrorPtr error;
  const std::optional<XPCArray> coded = encodeArguments(method->arguments, arguments, &error);
  if (!coded) return fail(call, cannotSendError(call.selector, error->description()));
  xpc::EncodedMessage message = xpc::encodeMessage(encodeCall(call.selector, *coded), xpc::kHeaderBytes);
  if (message.refusal != nullptr) return fail(call, cannotSendError(call.selector, message.refusal));
  if (method->reply) return request(std::move(call), method, std::move(message));
  sendOneWay(call, std::move(message));
}

void Connection::request(Call call, const Method& method, xpc::EncodedMessage message) {
  const auto its = transport_.get();
  if (!its) return fail(call, invalidError());
  if (call.isSynchronous) {
    const xpc::Connection::Answer answer = its->requestSync(std::move(message));
    return answered(call, *method, answer.reply);
  }
  its->request(std::move(message), queue_,
               [self = std::static_pointer_cast<Connection>(shared_from_this()), call = std::move(call),
                method](const XPCObject& answer) { self->answered(call, *method, answer); });
}

void Connection::sendOneWay(const Call& call, xpc::EncodedMessage message) {
  const auto its = transport_.get();
  const XPCObject error = its ? its->send(std::move(message)) : xpcErrorConnectionInvalid();
  if (error) return fail(call, error == xpcErrorConnectionInvalid() ? invalidError() : interruptedError());
  if (call.isSynchronous) its->waitUntilSent();
}

void Connection::answered(const Call& call, const RemoteMethodSignature& method, const XPCObject& answer) {
  const XPCDictionary reply = answer.asDictionary();
  if (!reply) {
    if (call.errorHandler) call.errorHandler(unansweredError(answer));
    return;
  }
  ErrorPtr failure;
  const std::optional<XPCObject> coded = decodeReply(reply, &failure);
  const std::optional<Array> values = coded ? decodeArguments(*method.reply, *coded, &failure) : std::nullopt;
  if (values) {
    if (call.reply) call.reply(*values);
    return;
  }
  QM_LOG_ERROR(remoteLog(),
               "%{public}s: Exception caught during decoding of received reply to message "
               "'%{public}s', dropping incoming message and calling failure block. Ignored exception: "
               "%{public}@",
               description(), call.selector, failure);
  if (call.errorHandler) call.errorHandler(replyInvalidError(std::move(failure)));
}

void Connection::received(const XPCObject& event) {
  if (const XPCDictionary message = event.asDictionary()) return receivedCall(message);
  if (event == xpcErrorConnectionInterrupted()) return interrupted();
  invalidated();
}

void Connection::receivedCall(const XPCDictionary& message) {
  if (isEnding()) return;
  ErrorPtr failure;
  const std::optional<CodedCall> call = decodeCall(message, &failure);
  if (!call) return dropUndecodable("(none)", failure);
  const std::string selector = shownText(call->selector);
  const ExportedMethod called = exportedMethod(call->selector);
  const Method& method = called.method;
  if (!method) {
    QM_LOG_ERROR(remoteLog(),
                 "%{public}s: received a message that is not in the interface of the local object "
                 "(%{public}s), dropping",
                 description(), selector);
    return;
  }
  const std::optional<Array> arguments = decodeArguments(method->arguments, call->arguments, &failure);
  if (!arguments) return dropUndecodable(selector, failure);
  XPCDictionary reply = message.createReply();
  if (static_cast<bool>(reply) != method->reply.has_value()) {
    QM_LOG_ERROR(remoteLog(), "%{public}s: received %{public}s %{public}s, dropping", description(), selector,
                 reply ? "as a request, but it has no reply" : "as a message, but it has a reply");
    return;
  }
  if (!reply) return (*called.handler)(*arguments, nullptr);
  (*called.handler)(*arguments, onlyReply(selector, [reply, selector, method](const Array& values) mutable {
    answer(reply, selector, *method->reply, values);
  }));
}

void Connection::dropUndecodable(const std::string& selector, const ErrorPtr& failure) const {
  QM_LOG_ERROR(remoteLog(),
               "%{public}s: Exception caught during decoding of received selector %{public}s, dropping "
               "incoming message. Exception: %{public}@",
               description(), selector, failure);
}

}  // namespace qm::remote

namespace qm {

std::shared_ptr<RemoteConnection> RemoteConnection::createWithMachServiceName(std::string_view name,
                                                                              std::uint64_t /*options*/) {
  const Queue queue = remote::Connection::makeQueue();
  return remote::Connection::create(Core::Kind::service, std::string(name), queue,
                                    xpc::Connection::createNamedClient(std::string(name), queue));
}

std::shared_ptr<RemoteConnection> RemoteConnection::createWithListenerEndpoint(const XPCEndpoint& endpoint) {
  const Queue queue = remote::Connection::makeQueue();
  return remote::Connection::create(Core::Kind::endpoint, {}, queue,
                                    xpc::Connection::createEndpointClient(endpoint, queue));
}

}  // namespace qm
