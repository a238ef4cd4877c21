#include <atomic>
#include <utility>

#include "platform/darwin/foundation_value.hpp"
#include "platform/darwin/remote_connection.hpp"
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
namespace {

class Listener final : public RemoteListener::Core, public std::enable_shared_from_this<Listener> {
 public:
  static std::shared_ptr<RemoteListener> create(NSXPCListener* listener) {
    const auto core = std::make_shared<Listener>(listener);
    core->watch();
    return std::make_shared<RemoteListener>(core);
  }
  explicit Listener(NSXPCListener* listener) : listener_(listener) {}

  XPCEndpoint endpoint() const override {
    @autoreleasepool {
      return remote::endpointHolding((__bridge CFTypeRef)listener_.endpoint);
    }
  }
  std::string description() const override {
    @autoreleasepool {
      return textFrom(listener_.description);
    }
  }

 private:
  void start() override {
    if (!isActivated_.exchange(true)) [listener_ resume];
  }
  void stop() override {
    start();  // an inactive one must not be released; it refuses everybody
    [listener_ invalidate];
  }
  // The framework holds its delegate weakly, and invalidates a connection that is refused.
  void watch() {
    delegate_ = [[QMRemoteListenerDelegate alloc]
        initWithHandler:[weak = weak_from_this()](NSXPCConnection* connection) {
          const std::shared_ptr<Listener> self = weak.lock();
          return self != nullptr && self->admits(remote::Connection::create(
                                        RemoteConnection::Core::Kind::client, {}, connection));
        }];
    listener_.delegate = delegate_;
  }

  NSXPCListener* const listener_;
  QMRemoteListenerDelegate* delegate_ = nil;
  std::atomic<bool> isActivated_{false};
};

}  // namespace

// That the name cannot be had is not reported: a name that is not in the job of launchd ends the process at
// once.
std::shared_ptr<RemoteListener> RemoteListener::createWithMachServiceName(std::string_view name,
                                                                          Block<void()> /*failed*/) {
  @autoreleasepool {
    return Listener::create([[NSXPCListener alloc] initWithMachServiceName:stringFrom(name)]);
  }
}

std::shared_ptr<RemoteListener> RemoteListener::anonymousListener() {
  @autoreleasepool {
    return Listener::create([NSXPCListener anonymousListener]);
  }
}

}  // namespace qm
