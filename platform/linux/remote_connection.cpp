#include "platform/remote_connection.hpp"

#include <atomic>
#include <utility>

#include "foundation/object_description.hpp"
#include "platform/linux/remote_coder.hpp"
#include "platform/linux/remote_core.hpp"

namespace qm {
namespace remote {

Log& remoteLog() {
  static Log& log = Log::create(kQMRLogSubsystem, "remote");
  return log;
}

}  // namespace remote

namespace {

using remote::remoteLog;

// The duty to answer one call: when it goes without an answer, the transport tells the caller.
class Answer {
 public:
  Answer(XPCDictionary reply, std::string selector, std::vector<RemoteParameter> parameters)
      : reply_(std::move(reply)), selector_(std::move(selector)), parameters_(std::move(parameters)) {}

  void send(const Array& values) {
    if (isSent_.exchange(true)) {
      QM_LOG_ERROR(remoteLog(), "Reply to %{public}s sent twice, ignoring the second", selector_);
      return;
    }
    XPCDictionary reply = std::exchange(reply_, {});
    ErrorPtr error;
    const std::optional<XPCArray> arguments = remote::encodeArguments(parameters_, values, &error);
    if (!arguments) {
      QM_LOG_ERROR(remoteLog(), "Cannot reply to %{public}s: %{public}@", selector_, error);
      return;
    }
    remote::encodeReply(reply, *arguments);
    reply.remoteConnection().sendMessage(reply);
  }

 private:
  XPCDictionary reply_;
  const std::string selector_;
  const std::vector<RemoteParameter> parameters_;
  std::atomic<bool> isSent_{false};
};

ErrorPtr makeRemoteError(RemoteErrorCode code, std::string text) {
  return makeError(kCocoaErrorDomain, static_cast<std::int64_t>(code),
                   {{kDebugDescriptionKey, std::move(text)}});
}

}  // namespace

Queue RemoteConnection::Core::makeQueue() {
  return Queue::serial("com.quillmarsh.remote.connection");
}

std::shared_ptr<RemoteConnection> RemoteConnection::Core::create(Kind kind, std::string serviceName,
                                                                 const Queue& queue,
                                                                 std::shared_ptr<xpc::Connection> transport) {
  const auto core = std::make_shared<Core>(kind, std::move(serviceName), queue, transport);
  auto connection = std::make_shared<RemoteConnection>(core);
  core->owner_ = connection;
  transport->setEventHandler([weak = std::weak_ptr(core)](const XPCObject& event) {
    if (const auto self = weak.lock()) self->received(event);
  });
  return connection;
}

RemoteConnection::Core::Core(Kind kind, std::string serviceName, const Queue& queue,
                             std::shared_ptr<xpc::Connection> transport)
    : kind_(kind), serviceName_(std::move(serviceName)), queue_(queue), transport_(std::move(transport)) {}

std::shared_ptr<xpc::Connection> RemoteConnection::Core::transport() const {
  MutexLock lock(mutex_);
  return transport_;
}

void RemoteConnection::Core::setRemoteObjectInterface(RemoteInterface interface) {
  auto shared = std::make_shared<const RemoteInterface>(std::move(interface));
  MutexLock lock(mutex_);
  interface_.swap(shared);
}

RemoteInterface RemoteConnection::Core::remoteObjectInterface() const {
  MutexLock lock(mutex_);
  return interface_ ? *interface_ : RemoteInterface();
}

void RemoteConnection::Core::setExport(RemoteExport exported) {
  auto shared = std::make_shared<const RemoteExport>(std::move(exported));
  MutexLock lock(mutex_);
  if (!hasEnded_) export_.swap(shared);
}

void RemoteConnection::Core::setInterruptionHandler(Block<void()> handler) {
  MutexLock lock(mutex_);
  if (!hasEnded_) std::swap(interruptionHandler_, handler);
}

void RemoteConnection::Core::setInvalidationHandler(Block<void()> handler) {
  MutexLock lock(mutex_);
  if (!hasEnded_) std::swap(invalidationHandler_, handler);
}

void RemoteConnection::Core::resume() {
  std::shared_ptr<xpc::Connection> transport;
  {
    MutexLock lock(mutex_);
    if (isResumed_ || ending_ != Ending::none) return;
    isResumed_ = true;
    if (kind_ == Kind::client) self_ = owner_.lock();
    transport = transport_;
  }
  if (transport) transport->activate();
}

void RemoteConnection::Core::invalidate() {
  std::shared_ptr<xpc::Connection> transport;
  {
    MutexLock lock(mutex_);
    if (ending_ != Ending::none) return;
    ending_ = Ending::here;
    self_ = owner_.lock();
    transport = transport_;
  }
  if (transport) transport->cancel();
}

void RemoteConnection::Core::abandon() {
  std::shared_ptr<xpc::Connection> transport;
  std::shared_ptr<const RemoteExport> exported;
  Block<void()> interruption;
  Block<void()> invalidation;
  bool isResumed = false;
  {
    MutexLock lock(mutex_);
    if (ending_ == Ending::none) ending_ = Ending::here;
    hasEnded_ = true;
    isResumed = isResumed_;
    transport = std::move(transport_);
    exported = std::move(export_);
    std::swap(interruption, interruptionHandler_);
    std::swap(invalidation, invalidationHandler_);
  }
  transport->setEventHandler(nullptr);
  if (!isResumed) transport->cancel();  // nobody can resume it any more
}

AuditToken RemoteConnection::Core::auditToken() const {
  const auto its = transport();
  return its ? its->auditToken() : AuditToken();
}

std::string RemoteConnection::Core::peerText() const {
  if (kind_ == Kind::service) return "connection to service named " + serviceName_;
  const std::string process = std::to_string(auditToken().processID());
  if (kind_ == Kind::client) return "connection from pid " + process;
  return "connection to anonymous listener with pid " + process;
}

std::string RemoteConnection::Core::description() const {
  return objectDescription("NSXPCConnection", this) + " " + peerText();
}

ErrorPtr RemoteConnection::Core::interruptedError() const {
  return makeRemoteError(RemoteErrorCode::interrupted, peerText());
}

ErrorPtr RemoteConnection::Core::invalidError() const {
  Ending ending = Ending::none;
  {
    MutexLock lock(mutex_);
    ending = ending_;
  }
  std::string text = "The " + peerText() + " was invalidated";
  if (ending == Ending::here)
    text += " from this process.";
  else
    text += kind_ == Kind::service ? ": failed at lookup with error 3 - No such process." : ".";
  return makeRemoteError(RemoteErrorCode::invalid, std::move(text));
}

// A peer that was there and is gone has interrupted the call, also where the connection ends with it.
ErrorPtr RemoteConnection::Core::unansweredError(const XPCObject& error) const {
  if (error == xpcErrorConnectionInterrupted()) return interruptedError();
  bool hasEnded = false;
  {
    MutexLock lock(mutex_);
    hasEnded = ending_ != Ending::none;
  }
  return hasEnded || auditToken().processID() == 0 ? invalidError() : interruptedError();
}

ErrorPtr RemoteConnection::Core::replyInvalidError(ErrorPtr underlying) const {
  std::string text = peerText();
  if (kind_ == Kind::service)
    text = "connection to service with pid " + std::to_string(auditToken().processID()) + " named " +
           serviceName_;
  return makeError(kCocoaErrorDomain, static_cast<std::int64_t>(RemoteErrorCode::replyInvalid),
                   {{kDebugDescriptionKey, std::move(text)}, {kUnderlyingErrorKey, std::move(underlying)}});
}

ErrorPtr RemoteConnection::Core::cannotSendError(const std::string& selector,
                                                 const std::string& reason) const {
  QM_LOG_ERROR(remoteLog(), "%{public}s: cannot call %{public}s: %{public}s", description(), selector,
               reason);
  return makeRemoteError(RemoteErrorCode::replyInvalid,
                         peerText() + ": cannot call " + selector + ": " + reason);
}

RemoteConnection::Core::Method RemoteConnection::Core::remoteMethod(std::string_view selector) const {
  std::shared_ptr<const RemoteInterface> interface;
  {
    MutexLock lock(mutex_);
    interface = interface_;
  }
  return interface ? Method(interface, interface->method(selector)) : nullptr;
}

void RemoteConnection::Core::invoke(Call call, const Array& arguments) {
  const Method method = remoteMethod(call.selector);
  if (!method)
    return fail(call, cannotSendError(call.selector, "it is not in the interface of the remote object"));
  ErrorPtr error;
  const std::optional<XPCArray> coded = remote::encodeArguments(method->arguments, arguments, &error);
  if (!coded) return fail(call, cannotSendError(call.selector, error->description()));
  xpc::EncodedMessage message =
      xpc::encodeMessage(remote::encodeCall(call.selector, *coded), xpc::kHeaderBytes);
  if (message.refusal != nullptr) return fail(call, cannotSendError(call.selector, message.refusal));
  if (method->reply) return request(std::move(call), method, std::move(message));
  sendOneWay(call, std::move(message));
}

void RemoteConnection::Core::request(Call call, const Method& method, xpc::EncodedMessage message) {
  const auto its = transport();
  if (!its) return fail(call, invalidError());
  if (call.isSynchronous) {
    const xpc::Connection::Answer answer = its->requestSync(std::move(message));
    return answered(call, *method, answer.reply);
  }
  its->request(std::move(message), queue_,
               [self = shared_from_this(), call = std::move(call), method](const XPCObject& answer) {
                 self->answered(call, *method, answer);
               });
}

void RemoteConnection::Core::sendOneWay(const Call& call, xpc::EncodedMessage message) {
  const auto its = transport();
  const XPCObject error = its ? its->send(std::move(message)) : xpcErrorConnectionInvalid();
  if (error) return fail(call, error == xpcErrorConnectionInvalid() ? invalidError() : interruptedError());
  if (call.isSynchronous) its->waitUntilSent();
}

void RemoteConnection::Core::answered(const Call& call, const RemoteMethodSignature& method,
                                      const XPCObject& answer) {
  const XPCDictionary reply = answer.asDictionary();
  if (!reply) {
    if (call.errorHandler) call.errorHandler(unansweredError(answer));
    return;
  }
  ErrorPtr failure;
  const std::optional<XPCObject> coded = remote::decodeReply(reply, &failure);
  const std::optional<Array> values =
      coded ? remote::decodeArguments(*method.reply, *coded, &failure) : std::nullopt;
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

void RemoteConnection::Core::fail(const Call& call, ErrorPtr error) const {
  if (!call.errorHandler) return;
  if (call.isSynchronous) return call.errorHandler(error);
  queue_.async([handler = call.errorHandler, error = std::move(error)] { handler(error); });
}

void RemoteConnection::Core::received(const XPCObject& event) {
  if (const XPCDictionary message = event.asDictionary()) return receivedCall(message);
  if (event == xpcErrorConnectionInterrupted()) return interrupted();
  invalidated();
}

void RemoteConnection::Core::receivedCall(const XPCDictionary& message) {
  std::shared_ptr<const RemoteExport> exported;
  {
    MutexLock lock(mutex_);
    if (ending_ != Ending::none) return;
    exported = export_;
  }
  ErrorPtr failure;
  const std::optional<remote::CodedCall> call = remote::decodeCall(message, &failure);
  if (!call) return dropUndecodable("(none)", failure);
  const std::string selector = remote::shownText(call->selector);
  const RemoteMethodSignature* method = exported ? exported->interface().method(call->selector) : nullptr;
  const RemoteExport::Handler* handler = method ? exported->handler(call->selector) : nullptr;
  if (handler == nullptr) {
    QM_LOG_ERROR(remoteLog(),
                 "%{public}s: received a message that is not in the interface of the local object "
                 "(%{public}s), dropping",
                 description(), selector);
    return;
  }
  const std::optional<Array> arguments =
      remote::decodeArguments(method->arguments, call->arguments, &failure);
  if (!arguments) return dropUndecodable(selector, failure);
  XPCDictionary reply = message.createReply();
  if (static_cast<bool>(reply) != method->reply.has_value()) {
    QM_LOG_ERROR(remoteLog(), "%{public}s: received %{public}s %{public}s, dropping", description(), selector,
                 reply ? "as a request, but it has no reply" : "as a message, but it has a reply");
    return;
  }
  if (!reply) return (*handler)(*arguments, nullptr);
  const auto answer = std::make_shared<Answer>(std::move(reply), selector, *method->reply);
  (*handler)(*arguments, [answer](const Array& values) { answer->send(values); });
}

void RemoteConnection::Core::dropUndecodable(const std::string& selector, const ErrorPtr& failure) const {
  QM_LOG_ERROR(remoteLog(),
               "%{public}s: Exception caught during decoding of received selector %{public}s, dropping "
               "incoming message. Exception: %{public}@",
               description(), selector, failure);
}

void RemoteConnection::Core::interrupted() {
  Block<void()> handler;
  {
    MutexLock lock(mutex_);
    if (ending_ == Ending::none) handler = interruptionHandler_;
  }
  if (handler) handler();
}

void RemoteConnection::Core::invalidated() {
  std::shared_ptr<RemoteConnection> self;
  std::shared_ptr<const RemoteExport> exported;
  Block<void()> interruption;
  Block<void()> invalidation;
  {
    MutexLock lock(mutex_);
    if (ending_ == Ending::none) ending_ = Ending::elsewhere;
    hasEnded_ = true;
    self = std::move(self_);
    exported = std::move(export_);
    std::swap(interruption, interruptionHandler_);
    std::swap(invalidation, invalidationHandler_);
  }
  if (invalidation) invalidation();
}

void RemoteProxy::invoke(std::string_view selector, Array arguments, ReplyHandler reply) const {
  if (target_) target_->invoke(selector, arguments, std::move(reply));
}

std::shared_ptr<RemoteConnection> RemoteConnection::createWithMachServiceName(std::string_view name,
                                                                              std::uint64_t /*options*/) {
  const Queue queue = Core::makeQueue();
  return Core::create(Core::Kind::service, std::string(name), queue,
                      xpc::Connection::createNamedClient(std::string(name), queue));
}

std::shared_ptr<RemoteConnection> RemoteConnection::createWithListenerEndpoint(const XPCEndpoint& endpoint) {
  const Queue queue = Core::makeQueue();
  return Core::create(Core::Kind::endpoint, {}, queue,
                      xpc::Connection::createEndpointClient(endpoint, queue));
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
