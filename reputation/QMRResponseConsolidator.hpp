// Makes sure that only one slow analysis of a file is under way: the first request for it proceeds, later
// ones park their reply and get the first one's answer. A file is recognised by its identity, so hard links
// and other spellings of its path are one file. Belongs to one Basalt provider.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "foundation/log.hpp"
#include "platform/queue.hpp"
#include "reputation/QMRFileIdentity.hpp"
#include "reputation/QMRFileReputationResult.hpp"

class QMRFileReputationRequest;

// Any thread, except from within a parked callback: those run on the consolidator's own queue, and waiting
// for that queue there would never end.
class QMRResponseConsolidator {
 public:
  QMRResponseConsolidator();
  QMRResponseConsolidator(const QMRResponseConsolidator&) = delete;
  QMRResponseConsolidator& operator=(const QMRResponseConsolidator&) = delete;

  // True: the reply was parked behind an analysis that is under way, and the caller must not start one.
  // False: the caller is now the one under way (or the file cannot be examined) and must answer for it with
  // respondToPendingCallbacksForRequest, whatever happens: nothing times a parked reply out.
  [[nodiscard]] bool waitForPendingScansForRequest(const QMRFileReputationRequest& request,
                                                   const qm::FileReputationCompletion& reply);

  // Calls every parked reply of the request's file, in the order they came, on the consolidator's queue, and
  // returns when all have run; the file is then no longer under way. Which file that is is found out anew: a
  // request without a file handle is for the file its path names now.
  void respondToPendingCallbacksForRequest(const QMRFileReputationRequest& request,
                                           const std::shared_ptr<const QMRFileReputationResult>& response,
                                           const qm::ErrorPtr& error);

  // By the request's descriptor if it has one, else by its path. Nothing when the file cannot be examined.
  std::optional<QMRFileIdentity> identityOfFileFromRequest(const QMRFileReputationRequest& request) const;

  // <consolidator:0xADDRESS>
  std::string description() const;

 private:
  struct PendingRequests : std::unordered_set<QMRFileIdentity> {
    std::string description() const;
  };
  using Callbacks = std::vector<qm::FileReputationCompletion>;

  void park(const QMRFileReputationRequest& request, const QMRFileIdentity& identity,
            const qm::FileReputationCompletion& reply);

  qm::Log& log_;
  const qm::Queue sageSynchronizationQueue_;
  // On the queue only. A file that has callbacks is always pending; a pending one may have none.
  PendingRequests pendingSageRequests_;
  std::unordered_map<QMRFileIdentity, Callbacks> pendingSageRequestCallbacks_;
};
