#include "companions/admitted_peers.hpp"

#include <algorithm>
#include <utility>

#include "companions/process_shares.hpp"
#include "platform/queue.hpp"

namespace qm {

std::shared_ptr<AdmittedPeers> AdmittedPeers::create(std::string name, Log& log, Options options) {
  return std::shared_ptr<AdmittedPeers>(new AdmittedPeers(std::move(name), log, std::move(options)));
}

AdmittedPeers::AdmittedPeers(std::string name, Log& log, Options options)
    : name_(std::move(name)), log_(log), options_(std::move(options)) {}

void AdmittedPeers::serve(const std::shared_ptr<RemoteListener>& listener, Serve serve) {
  listener->setDelegate(
      [self = shared_from_this(), serve = std::move(serve)](
          const std::shared_ptr<RemoteListener>&, const std::shared_ptr<RemoteConnection>& connection) {
        return self->accept(connection, serve);
      });
  listener->resume();
}

bool AdmittedPeers::accept(const std::shared_ptr<RemoteConnection>& connection, const Serve& serve) {
  const std::uint32_t user = connection->effectiveUserIdentifier();
  {
    const std::lock_guard lock(mutex_);
    if (undecided_.size() >= options_.undecidedPeers ||
        undecided_.count(user) >= options_.undecidedPeersOfOneUser) {
      QM_LOG_ERROR(log_, "Process %{public}d is refused: too many are being checked",
                   connection->processIdentifier());
      return false;
    }
    undecided_.insert(user);
  }
  Queue::serial("com.quillmarsh." + name_ + ".admission")
      .async([self = shared_from_this(), connection, user, serve] { self->decide(connection, user, serve); });
  return true;
}

void AdmittedPeers::decide(const std::shared_ptr<RemoteConnection>& connection, std::uint32_t user,
                           const Serve& serve) {
  const bool isAdmitted = options_.admission(*connection);
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(mutex_);
    undecided_.erase(undecided_.find(user));
    if (isAdmitted) number = add(connection);
  }
  if (number == 0) {
    QM_LOG_ERROR(log_, "Process %{public}d is not admitted%{public}@", connection->processIdentifier(),
                 std::string(isAdmitted ? ": it has too many connections" : ""));
    return connection->invalidate();
  }
  const Served served = serve(*connection);
  keep(number, served.object);
  connection->setExport(served.exported);
  connection->resume();
}

std::uint64_t AdmittedPeers::add(const std::shared_ptr<RemoteConnection>& connection) {
  const auto isOfProcess = [process = processInstance(connection->auditToken())](const auto& entry) {
    return processInstance(entry.second.connection->auditToken()) == process;
  };
  const auto connections = std::count_if(peers_.begin(), peers_.end(), isOfProcess);
  if (static_cast<std::size_t>(connections) >= options_.connectionsOfOneProcess) return 0;
  const std::uint64_t number = ++lastNumber_;
  peers_.emplace(number, Entry{connection, nullptr});
  connection->setInvalidationHandler([weak = weak_from_this(), number] {
    if (const auto self = weak.lock()) self->remove(number);
  });
  return number;
}

void AdmittedPeers::keep(std::uint64_t number, const std::shared_ptr<void>& object) {
  const std::lock_guard lock(mutex_);
  const auto found = peers_.find(number);
  if (found != peers_.end()) found->second.object = object;
}

void AdmittedPeers::remove(std::uint64_t number) {
  Entry removed;  // goes outside of the lock
  const std::lock_guard lock(mutex_);
  const auto found = peers_.find(number);
  if (found == peers_.end()) return;
  removed = std::move(found->second);
  peers_.erase(found);
}

}  // namespace qm
