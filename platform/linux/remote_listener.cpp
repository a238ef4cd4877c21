#include <utility>

#include "foundation/object_description.hpp"
#include "platform/linux/remote_core.hpp"

namespace qm {

class RemoteListener::Core final : public std::enable_shared_from_this<Core> {
 public:
  // Without a name: anonymous.
  static std::shared_ptr<RemoteListener> create(std::optional<std::string> name, Block<void()> failed) {
    const auto core = std::make_shared<Core>(std::move(name), std::move(failed));
    core->listen();
    return std::make_shared<RemoteListener>(core);
  }
  Core(std::optional<std::string> name, Block<void()> failed)
      : name_(std::move(name)), failed_(std::move(failed)) {}

  void setDelegate(Delegate delegate) {
    MutexLock lock(mutex_);
    if (!isInvalid_) std::swap(delegate_, delegate);
  }
  void resume(std::weak_ptr<RemoteListener> owner) {
    {
      MutexLock lock(mutex_);
      owner_ = std::move(owner);
    }
    listener_.activate();
  }
  void invalidate() {
    release();
    listener_.cancel();
  }
  XPCEndpoint endpoint() const { return listener_.endpoint(); }
  std::string description() const {
    return objectDescription("NSXPCListener", this) + (name_ ? " for service named " + *name_ : " anonymous");
  }

 private:
  void listen();
  // On the queue.
  void offered(const XPCConnection& peer);
  // The name cannot be had, or it was invalidated and knows.
  void ended() {
    if (const Block<void()> failed = release()) failed();
  }
  // Takes the delegate away, and hands out the block for a failure, the first time.
  Block<void()> release() {
    Delegate delegate;
    Block<void()> failed;
    MutexLock lock(mutex_);
    isInvalid_ = true;
    std::swap(delegate, delegate_);
    std::swap(failed, failed_);
    return failed;
  }

  const std::optional<std::string> name_;
  const Queue queue_ = Queue::serial("com.quillmarsh.remote.listener");
  XPCConnection listener_;

  Mutex mutex_;
  std::weak_ptr<RemoteListener> owner_ QM_GUARDED_BY(mutex_);
  Delegate delegate_ QM_GUARDED_BY(mutex_);
  Block<void()> failed_ QM_GUARDED_BY(mutex_);
  bool isInvalid_ QM_GUARDED_BY(mutex_) = false;
};

// The transport's listener, on this one's queue.
void RemoteListener::Core::listen() {
  listener_ =
      name_ ? XPCConnection::createListener(*name_, queue_) : XPCConnection::createAnonymousListener(queue_);
  listener_.setEventHandler([weak = weak_from_this()](const XPCObject& event) {
    const XPCConnection peer = event.asConnection();
    const auto self = weak.lock();
    if (!self) return peer.cancel();
    if (!peer) return self->ended();
    self->offered(peer);
  });
}

void RemoteListener::Core::offered(const XPCConnection& peer) {
  Delegate delegate;
  std::shared_ptr<RemoteListener> owner;
  {
    MutexLock lock(mutex_);
    delegate = delegate_;
    owner = owner_.lock();
  }
  if (!delegate || !owner) return peer.cancel();
  const Queue queue = RemoteConnection::Core::makeQueue();
  auto transport = std::static_pointer_cast<xpc::Connection>(
      std::static_pointer_cast<xpc::ConnectionCore>(peer.representation()));
  transport->setTargetQueue(queue);
  const auto connection =
      RemoteConnection::Core::create(RemoteConnection::Core::Kind::client, {}, queue, transport);
  if (!delegate(owner, connection)) return connection->invalidate();
  transport->setDecided();
}

std::shared_ptr<RemoteListener> RemoteListener::createWithMachServiceName(std::string_view name,
                                                                          Block<void()> failed) {
  return Core::create(std::string(name), std::move(failed));
}

std::shared_ptr<RemoteListener> RemoteListener::anonymousListener() {
  return Core::create(std::nullopt, nullptr);
}

RemoteListener::RemoteListener(std::shared_ptr<Core> core) : core_(std::move(core)) {}

RemoteListener::~RemoteListener() {
  core_->invalidate();
}

void RemoteListener::setDelegate(Delegate delegate) {
  core_->setDelegate(std::move(delegate));
}
XPCEndpoint RemoteListener::endpoint() const {
  return core_->endpoint();
}
void RemoteListener::resume() {
  core_->resume(weak_from_this());
}
void RemoteListener::invalidate() {
  core_->invalidate();
}
std::string RemoteListener::description() const {
  return core_->description();
}

}  // namespace qm
