#include <utility>

#include "foundation/object_description.hpp"
#include "platform/linux/remote_connection.hpp"

namespace qm {
namespace {

class Listener final : public RemoteListener::Core, public std::enable_shared_from_this<Listener> {
 public:
  // Without a name: anonymous.
  static std::shared_ptr<RemoteListener> create(std::optional<std::string> name, Block<void()> failed) {
    const auto core = std::make_shared<Listener>(std::move(name), std::move(failed));
    core->listen();
    return std::make_shared<RemoteListener>(core);
  }
  Listener(std::optional<std::string> name, Block<void()> failed)
      : name_(std::move(name)), failed_(std::move(failed)) {}

  XPCEndpoint endpoint() const override { return listener_.endpoint(); }
  std::string description() const override {
    return objectDescription("NSXPCListener", this) + (name_ ? " for service named " + *name_ : " anonymous");
  }

 private:
  void start() override { listener_.activate(); }
  void stop() override {
    failed_.set(nullptr);
    listener_.cancel();
  }

  void listen();
  // On the queue.
  void offered(const XPCConnection& peer);
  // The name cannot be had, or it was invalidated and knows.
  void ended() {
    refuse();
    if (const Block<void()> failed = failed_.exchange(nullptr)) failed();
  }

  const std::optional<std::string> name_;
  const Queue queue_ = Queue::serial("com.quillmarsh.remote.listener");
  XPCConnection listener_;
  Property<Block<void()>> failed_;
};

// The transport's listener, on this one's queue.
void Listener::listen() {
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

void Listener::offered(const XPCConnection& peer) {
  const Queue queue = remote::Connection::makeQueue();
  auto transport = std::static_pointer_cast<xpc::Connection>(
      std::static_pointer_cast<xpc::ConnectionCore>(peer.representation()));
  transport->setTargetQueue(queue);
  const auto connection =
      remote::Connection::create(RemoteConnection::Core::Kind::client, {}, queue, transport);
  if (!admits(connection)) return connection->invalidate();
  transport->setDecided();
}

}  // namespace

std::shared_ptr<RemoteListener> RemoteListener::createWithMachServiceName(std::string_view name,
                                                                          Block<void()> failed) {
  return Listener::create(std::string(name), std::move(failed));
}

std::shared_ptr<RemoteListener> RemoteListener::anonymousListener() {
  return Listener::create(std::nullopt, nullptr);
}

}  // namespace qm
