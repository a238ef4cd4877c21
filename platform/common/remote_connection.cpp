#include "platform/remote_connection.hpp"

#include <atomic>
#include <limits>
#include <utility>

#include "platform/common/remote_core.hpp"

namespace qm {
namespace remote {

Log& remoteLog() {
  static Log& log = Log::create(kQMRLogSubsystem, "remote");
  return log;
}

ErrorPtr makeRemoteError(RemoteErrorCode code, std::string text) {
  return makeError(kCocoaErrorDomain, static_cast<std::int64_t>(code),
                   {{kDebugDescriptionKey, std::move(text)}});
}

bool fits(RemoteType type, const Value& value) {
  switch (type) {
    case RemoteType::boolean:
      return value.as<bool>() != nullptr;
    case RemoteType::int64:
      return value.as<std::int64_t>() != nullptr;
    case RemoteType::uint64:
      return value.as<std::uint64_t>() != nullptr;
    case RemoteType::uint32: {
      const auto* number = value.as<std::uint64_t>();
      return number != nullptr && *number <= std::numeric_limits<std::uint32_t>::max();
    }
    case RemoteType::real:
      return value.as<double>() != nullptr;
    case RemoteType::object:
      return true;
  }
  return false;
}

namespace {

class OnlyReply {
 public:
  OnlyReply(std::string selector, Block<void(const Array& values)> send)
      : selector_(std::move(selector)), send_(std::move(send)) {}

  void operator()(const Array& values) {
    if (isGiven_.exchange(true)) {
      QM_LOG_ERROR(remoteLog(), "Reply to %{public}s sent twice, ignoring the second", selector_);
      return;
    }
    std::exchange(send_, nullptr)(values);
  }

 private:
  const std::string selector_;
  Block<void(const Array& values)> send_;
  std::atomic<bool> isGiven_{false};
};

}  // namespace

RemoteExport::Reply onlyReply(std::string selector, Block<void(const Array& values)> send) {
  const auto only = std::make_shared<OnlyReply>(std::move(selector), std::move(send));
  return [only](const Array& values) { (*only)(values); };
}

}  // namespace remote

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

void RemoteProxy::invoke(std::string_view selector, Array arguments, ReplyHandler reply) const {
  if (target_) target_->invoke(selector, arguments, std::move(reply));
}

RemoteConnection::Core::Core(Kind kind, std::string serviceName, Queue failureQueue)
    : kind_(kind), serviceName_(std::move(serviceName)), failureQueue_(std::move(failureQueue)) {}

std::shared_ptr<RemoteConnection> RemoteConnection::Core::makeConnection() {
  auto connection = std::make_shared<RemoteConnection>(shared_from_this());
  owner_ = connection;
  return connection;
}

// --- What is set ---

void RemoteConnection::Core::setRemoteObjectInterface(RemoteInterface interface) {
  std::shared_ptr<const RemoteInterface> shared;
  if (declareRemote(interface)) shared = std::make_shared<const RemoteInterface>(std::move(interface));
  MutexLock lock(mutex_);
  interface_.swap(shared);
}

RemoteInterface RemoteConnection::Core::remoteObjectInterface() const {
  MutexLock lock(mutex_);
  return interface_ ? *interface_ : RemoteInterface();
}

void RemoteConnection::Core::setExport(RemoteExport exported) {
  std::shared_ptr<const RemoteExport> shared;
  if (declareExport(exported.interface())) shared = std::make_shared<const RemoteExport>(std::move(exported));
  MutexLock lock(mutex_);
  if (!hasEnded_) handlers_.exported.swap(shared);
}

void RemoteConnection::Core::setInterruptionHandler(Block<void()> handler) {
  MutexLock lock(mutex_);
  if (!hasEnded_) std::swap(handlers_.interruption, handler);
}

void RemoteConnection::Core::setInvalidationHandler(Block<void()> handler) {
  MutexLock lock(mutex_);
  if (!hasEnded_) std::swap(handlers_.invalidation, handler);
}

// --- Its life ---

void RemoteConnection::Core::resume() {
  {
    MutexLock lock(mutex_);
    if (isResumed_ || ending_ != Ending::none) return;
    isResumed_ = true;
    if (kind_ == Kind::client) self_ = owner_.lock();
  }
  start();
}

void RemoteConnection::Core::invalidate() {
  {
    MutexLock lock(mutex_);
    if (ending_ != Ending::none) return;
    ending_ = Ending::here;
    self_ = owner_.lock();
  }
  end();
}

RemoteConnection::Core::Handlers RemoteConnection::Core::finish(Ending why) {
  if (ending_ == Ending::none) ending_ = why;
  hasEnded_ = true;
  return std::exchange(handlers_, {});
}

void RemoteConnection::Core::abandon() {
  Handlers released;
  bool wasResumed = false;
  {
    MutexLock lock(mutex_);
    released = finish(Ending::here);
    wasResumed = isResumed_;
  }
  giveUp(wasResumed);
}

void RemoteConnection::Core::interrupted() {
  Block<void()> handler;
  {
    MutexLock lock(mutex_);
    if (ending_ == Ending::none) handler = handlers_.interruption;
  }
  if (handler) handler();
}

void RemoteConnection::Core::invalidated() {
  std::shared_ptr<RemoteConnection> self;
  Handlers released;
  {
    MutexLock lock(mutex_);
    released = finish(Ending::elsewhere);
    self = std::move(self_);
  }
  if (released.invalidation) released.invalidation();
}

bool RemoteConnection::Core::isEnding() const {
  MutexLock lock(mutex_);
  return ending_ != Ending::none;
}

// --- Calls ---

void RemoteConnection::Core::invoke(Call call, const Array& arguments) {
  std::shared_ptr<const RemoteInterface> interface;
  {
    MutexLock lock(mutex_);
    interface = interface_;
  }
  const Method method(interface, interface ? interface->method(call.selector) : nullptr);
  if (!method)
    return fail(call, cannotSendError(call.selector, "it is not in the interface of the remote object"));
  send(std::move(call), method, arguments);
}

RemoteConnection::Core::ExportedMethod RemoteConnection::Core::exportedMethod(
    std::string_view selector) const {
  std::shared_ptr<const RemoteExport> exported;
  {
    MutexLock lock(mutex_);
    if (ending_ == Ending::none) exported = handlers_.exported;
  }
  if (!exported) return {};
  const RemoteMethodSignature* method = exported->interface().method(selector);
  const RemoteExport::Handler* handler = exported->handler(selector);
  if (method == nullptr || handler == nullptr) return {};
  return {.method = Method(exported, method),
          .handler = std::shared_ptr<const RemoteExport::Handler>(exported, handler)};
}

void RemoteConnection::Core::fail(const Call& call, ErrorPtr error) const {
  if (!call.errorHandler) return;
  if (call.isSynchronous) return call.errorHandler(error);
  failureQueue_.async([handler = call.errorHandler, error = std::move(error)] { handler(error); });
}

// --- Its errors ---

std::string RemoteConnection::Core::peerText() const {
  if (kind_ == Kind::service) return "connection to service named " + serviceName_;
  const std::string process = std::to_string(auditToken().processID());
  if (kind_ == Kind::client) return "connection from pid " + process;
  return "connection to anonymous listener with pid " + process;
}

ErrorPtr RemoteConnection::Core::interruptedError() const {
  return remote::makeRemoteError(RemoteErrorCode::interrupted, peerText());
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
  return remote::makeRemoteError(RemoteErrorCode::invalid, std::move(text));
}

ErrorPtr RemoteConnection::Core::cannotSendError(const std::string& selector,
                                                 const std::string& reason) const {
  QM_LOG_ERROR(remote::remoteLog(), "%{public}s: cannot call %{public}s: %{public}s", description(), selector,
               reason);
  return remote::makeRemoteError(RemoteErrorCode::replyInvalid,
                                 peerText() + ": cannot call " + selector + ": " + reason);
}

// --- The connection's own ---

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
