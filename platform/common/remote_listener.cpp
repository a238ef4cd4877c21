#include <utility>

#include "platform/common/remote_core.hpp"

namespace qm {

void RemoteListener::Core::setDelegate(Delegate delegate) {
  MutexLock lock(mutex_);
  if (!isInvalid_) std::swap(delegate_, delegate);
}

void RemoteListener::Core::resume(std::weak_ptr<RemoteListener> owner) {
  {
    MutexLock lock(mutex_);
    owner_ = std::move(owner);
  }
  start();
}

void RemoteListener::Core::invalidate() {
  refuse();
  stop();
}

bool RemoteListener::Core::admits(const std::shared_ptr<RemoteConnection>& connection) {
  Delegate delegate;
  std::shared_ptr<RemoteListener> owner;
  {
    MutexLock lock(mutex_);
    delegate = delegate_;
    owner = owner_.lock();
  }
  return delegate && owner && delegate(owner, connection);
}

void RemoteListener::Core::refuse() {
  Delegate released;
  MutexLock lock(mutex_);
  isInvalid_ = true;
  std::swap(released, delegate_);
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
