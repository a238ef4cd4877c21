#include <atomic>
#include <mutex>
#include <utility>

#include "platform/darwin/foundation_value.hpp"
#include "platform/darwin/remote_core.hpp"
#include "platform/darwin/remote_endpoint.hpp"

using NewConnectionHandler = qm::Block<bool(NSXPCConnection* connection)>;

@interface QMRemoteListenerDelegate : NSObject <NSXPCListenerDelegate>
- (instancetype)initWithHandler:(NewConnectionHandler)handler;
@end

@implementation QMRemoteListenerDelegate {
  NewConnectionHandler _handler;
}

- (instancetype)initWithHandler:(NewConnectionHandler)handler {
  self = [super init];
  if (self != nil) _handler = std::move(handler);
  return self;
}

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)newConnection {
  (void)listener;
  return _handler(newConnection) ? YES : NO;
}

@end

namespace qm {

class RemoteListener::Core final : public std::enable_shared_from_this<Core> {
 public:
  static std::shared_ptr<RemoteListener> create(NSXPCListener* listener) {
    const auto core = std::make_shared<Core>(listener);
    core->watch();
    return std::make_shared<RemoteListener>(core);
  }
  explicit Core(NSXPCListener* listener) : listener_(listener) {}

  void setDelegate(Delegate delegate) {
    const std::lock_guard lock(mutex_);
    if (!isInvalid_) std::swap(delegate_, delegate);
  }
  void resume(std::weak_ptr<RemoteListener> owner) {
    {
      const std::lock_guard lock(mutex_);
      owner_ = std::move(owner);
    }
    activate();
  }
  void invalidate() {
    {
      Delegate released;
      const std::lock_guard lock(mutex_);
      isInvalid_ = true;
      std::swap(released, delegate_);
    }
    activate();  // an inactive one must not be released; it refuses everybody
    [listener_ invalidate];
  }
  XPCEndpoint endpoint() const {
    @autoreleasepool {
      return remote::endpointHolding((__bridge CFTypeRef)listener_.endpoint);
    }
  }
  std::string description() const {
    @autoreleasepool {
      return textFrom(listener_.description);
    }
  }

 private:
  void activate() {
    if (!isActivated_.exchange(true)) [listener_ resume];
  }
  // The framework holds its delegate weakly.
  void watch() {
    frameworkDelegate_ = [[QMRemoteListenerDelegate alloc]
        initWithHandler:[weak = weak_from_this()](NSXPCConnection* connection) {
          const std::shared_ptr<Core> self = weak.lock();
          return self != nullptr && self->offered(connection);
        }];
    listener_.delegate = frameworkDelegate_;
  }
  // On the listener's queue. The framework invalidates a connection that is refused.
  bool offered(NSXPCConnection* connection) {
    Delegate delegate;
    std::shared_ptr<RemoteListener> owner;
    {
      const std::lock_guard lock(mutex_);
      delegate = delegate_;
      owner = owner_.lock();
    }
    return delegate && owner && delegate(owner, RemoteConnection::Core::create(connection, true));
  }

  NSXPCListener* const listener_;
  QMRemoteListenerDelegate* frameworkDelegate_ = nil;
  std::atomic<bool> isActivated_{false};

  std::mutex mutex_;
  std::weak_ptr<RemoteListener> owner_;
  Delegate delegate_;
  bool isInvalid_ = false;
};

// That the name cannot be had is not reported: a name that is not in the job of launchd ends the process at
// once.
std::shared_ptr<RemoteListener> RemoteListener::createWithMachServiceName(std::string_view name,
                                                                          Block<void()> /*failed*/) {
  @autoreleasepool {
    return Core::create([[NSXPCListener alloc] initWithMachServiceName:stringFrom(name)]);
  }
}

std::shared_ptr<RemoteListener> RemoteListener::anonymousListener() {
  @autoreleasepool {
    return Core::create([NSXPCListener anonymousListener]);
  }
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
