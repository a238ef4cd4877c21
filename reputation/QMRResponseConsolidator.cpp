#include "reputation/QMRResponseConsolidator.hpp"

#include <cerrno>
#include <cstdio>
#include <utility>

#include "platform/file_io.hpp"
#include "reputation/QMRFileReputationRequest.hpp"

QMRResponseConsolidator::QMRResponseConsolidator()
    : log_(qm::Log::create(qm::kQMRLogSubsystem, "QMRResponseConsolidator")),
      sageSynchronizationQueue_(qm::Queue::serial("com.quillmarsh.sage-synchronization")) {}

std::string QMRResponseConsolidator::description() const {
  char text[64];
  std::snprintf(text, sizeof text, "<consolidator:%p>", static_cast<const void*>(this));
  return text;
}

std::string QMRResponseConsolidator::PendingRequests::description() const {
  std::string text = "{(";
  const char* separator = "\n    ";
  for (const QMRFileIdentity& identity : *this) {
    text.append(separator).append(identity.description());
    separator = ",\n    ";
  }
  return text + "\n)}";
}

std::optional<QMRFileIdentity> QMRResponseConsolidator::identityOfFileFromRequest(
    const QMRFileReputationRequest& request) const {
  const std::string path = request.path();
  const std::shared_ptr<qm::FileHandle> fileHandle = request.fileHandle();
  qm::FileStatus status;
  bool succeeded = false;
  int failure = 0;
  if (fileHandle) {
    const int descriptor = fileHandle->fileDescriptor();
    QM_LOG_DEBUG(log_, "calling fstat() for path %@ file descriptor %d", path, descriptor);
    succeeded = qm::statDescriptor(descriptor, status);
    failure = errno;
  } else {
    QM_LOG_DEBUG(log_, "calling stat() for path %@", path);
    succeeded = qm::statPath(path.c_str(), status);
    failure = errno;
  }
  if (!succeeded) {
    QM_LOG_ERROR(log_, "stat failed for path %@, error %d", path, failure);
    return std::nullopt;
  }
  QM_LOG_DEBUG(log_, "got stat for path %@; it's on device %d inode %llu", path, status.device, status.inode);
  return QMRFileIdentity::identityFromStat(status);
}

bool QMRResponseConsolidator::waitForPendingScansForRequest(const QMRFileReputationRequest& request,
                                                            const qm::FileReputationCompletion& reply) {
  bool isParked = false;
  sageSynchronizationQueue_.sync([&] {
    const std::optional<QMRFileIdentity> identity = identityOfFileFromRequest(request);
    if (!identity) return;
    QM_LOG_DEBUG(log_, "%p contains %lu elements", &pendingSageRequests_, pendingSageRequests_.size());
    if (pendingSageRequests_.contains(*identity)) {
      park(request, *identity, reply);
      isParked = true;
      return;
    }
    pendingSageRequests_.insert(*identity);
    QM_LOG_DEBUG(log_,
                 "According to %p nobody is waiting for response for file with path %@, ID %@, added to %@",
                 &pendingSageRequests_, request.path(), identity, pendingSageRequests_);
  });
  return isParked;
}

void QMRResponseConsolidator::park(const QMRFileReputationRequest& request, const QMRFileIdentity& identity,
                                   const qm::FileReputationCompletion& reply) {
  QM_LOG_DEBUG(log_, "Someone is already waiting for response for file with path %@, ID %@", request.path(),
               identity);
  const auto found = pendingSageRequestCallbacks_.find(identity);
  if (found != pendingSageRequestCallbacks_.end()) {
    QM_LOG_DEBUG(log_, "Adding myself to callback array that already has %lu elements", found->second.size());
    found->second.push_back(reply);
    return;
  }
  QM_LOG_DEBUG(log_, "Creating new callback array and adding %@ to it", reply);
  pendingSageRequestCallbacks_[identity].push_back(reply);
}

void QMRResponseConsolidator::respondToPendingCallbacksForRequest(
    const QMRFileReputationRequest& request, const std::shared_ptr<const QMRFileReputationResult>& response,
    const qm::ErrorPtr& error) {
  Callbacks answered;  // released outside the queue
  // The callbacks run inside the queue, by design: until all have been answered nobody can ask about the file
  // anew.
  sageSynchronizationQueue_.sync([&] {
    const std::optional<QMRFileIdentity> identity = identityOfFileFromRequest(request);
    if (!identity || !pendingSageRequests_.contains(*identity)) {
      QM_LOG_DEBUG(log_, "No pending callbacks for file %@", identity);
      return;
    }
    QM_LOG_DEBUG(log_, "File %@ is in pending requests (count=%lu)", identity, pendingSageRequests_.size());
    if (auto entry = pendingSageRequestCallbacks_.extract(*identity)) answered = std::move(entry.mapped());
    QM_LOG_DEBUG(log_, "%lu callbacks are waiting for response for %@", answered.size(), identity);
    for (const qm::FileReputationCompletion& callback : answered) {
      QM_LOG_DEBUG(log_, "Calling callback %@ with result %@ error %@", callback, response, error);
      if (callback) callback(response, error);
    }
    pendingSageRequests_.erase(*identity);
  });
}
