// The connection to the service: sending, replies, and what happens when it ends.
#include <algorithm>
#include <utility>

#include "client/reputation_message.hpp"
#include "client/reputation_session.hpp"
#include "platform/service_manager.hpp"

namespace qm {
namespace {

constexpr std::chrono::milliseconds kFirstResumeDelay{20};
constexpr std::chrono::milliseconds kLongestResumeDelay{1000};
// An error for one reply comes alone when the service dropped the request, or with the end of the connection,
// which is reported this soon after it.
constexpr std::chrono::milliseconds kConnectionEndGrace{250};
// Connections in a row that end without a message before the service counts as refusing this program.
constexpr int kRefusedAfter = 2;

}  // namespace

void ReputationSession::connect() {
  const std::uint64_t link = ++link_;
  proved_ = false;
  connection_ =
      options_.connect ? options_.connect(queue_) : XPCConnection::createClient(options_.serviceName, queue_);
  connection_.setEventHandler([weak = weak_from_this(), link](const XPCObject& event) {
    if (const auto self = weak.lock()) self->handleEvent(link, event);
  });
  connection_.activate();
}

void ReputationSession::send(const RequestPtr& request) {
  if (!connection_) connect();
  request->link = link_;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(request->timer->first - Clock::now());
  connection_.sendMessageWithReply(
      request->message, queue_,
      [weak = weak_from_this(), link = link_, request](const XPCObject& reply) {
        if (const auto self = weak.lock()) self->handleReply(link, request, reply);
      },
      std::max(left, std::chrono::milliseconds(1)));
}

void ReputationSession::handleEvent(std::uint64_t link, const XPCObject& event) {
  if (link != link_ || !connection_) return;  // of a connection that was replaced
  if (event.type() == XPCType::dictionary) {
    proveLink();
    handleDelayedResponse(event.asDictionary());
  } else if (event.type() == XPCType::error) {
    loseLink(event);
  }
  pump();
}

void ReputationSession::handleReply(std::uint64_t link, const RequestPtr& request, const XPCObject& reply) {
  if (request->done || request->link != link) return;
  if (reply.type() == XPCType::dictionary) {
    proveLink();
    const XPCDictionary response = reply.asDictionary();
    if (isReplyTo(response, request->identifier)) {
      readReputationResponse(response, request->answer);
      finish(request);
    } else {
      fail(request, ReputationFailure::malformedAnswer, "the answer belongs to another request");
    }
  } else if (reply == xpcErrorReplyTimedOut()) {
    fail(request, ReputationFailure::timedOut, "no answer in time");
  } else {
    queue_.after(kConnectionEndGrace, [weak = weak_from_this(), link, request] {
      const auto self = weak.lock();
      if (!self || request->done || request->link != link) return;
      self->fail(request, ReputationFailure::connectionLost,
                 "the service dropped the request without an answer");
      self->pump();
    });
  }
  pump();
}

void ReputationSession::proveLink() {
  proved_ = true;
  unprovedEndings_ = 0;
  outage_ = false;
}

// The connection ended. Requests it had not answered are sent again, or fail.
void ReputationSession::loseLink(const XPCObject& error) {
  std::exchange(connection_, {}).cancel();
  endAllFollowing(ReputationFailure::connectionLost,
                  "the connection to the service ended, no further answer will come");
  std::vector<RequestPtr> sent;
  for (const auto& entry : inFlight_)
    if (entry.second->link == link_) sent.push_back(entry.second);
  std::sort(sent.begin(), sent.end(),
            [](const RequestPtr& a, const RequestPtr& b) { return a->identifier > b->identifier; });
  for (const RequestPtr& request : sent) request->link = 0;

  if (proved_ || error == xpcErrorConnectionInterrupted())
    retryReached(sent, proved_);
  else
    retryUnreached(sent);
}

// Nobody was there. The requests have not reached anyone, so they may be sent as often as the outage is
// waited for.
void ReputationSession::retryUnreached(const std::vector<RequestPtr>& requests) {
  if (!outage_ || Clock::now() >= outageUntil_) {
    outage_ = false;
    const std::string place = servicePlace(options_.serviceName);
    return failAll(ReputationFailure::serviceUnavailable, "the reputation service " + options_.serviceName +
                                                              " cannot be reached" +
                                                              (place.empty() ? "" : " at " + place));
  }
  for (const RequestPtr& request : requests) requeue(request);
  resumeLater();
}

void ReputationSession::retryReached(const std::vector<RequestPtr>& requests, bool proved) {
  if (!proved && ++unprovedEndings_ >= kRefusedAfter) {
    unprovedEndings_ = 0;
    return failAll(ReputationFailure::refused,
                   "the reputation service " + options_.serviceName +
                       " closes the connection without an answer: it does not admit this program, or fails");
  }
  if (!std::exchange(outage_, true)) {
    outageUntil_ = Clock::now() + options_.reconnectTimeout;
    resumeDelay_ = kFirstResumeDelay;
  }
  for (const RequestPtr& request : requests) {
    if (++request->losses < 2)
      requeue(request);
    else
      fail(request, ReputationFailure::connectionLost, "the service ended twice while it had the request");
  }
  resumeLater();
}

// Back to the head of those that wait, keeping its deadline and its open file.
void ReputationSession::requeue(const RequestPtr& request) {
  inFlight_.erase(request->identifier);
  waiting_.push_front(request);
}

void ReputationSession::resumeLater() {
  resuming_ = true;
  queue_.after(resumeDelay_, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->resuming_ = false;
    self->pump();
  });
  resumeDelay_ = std::min(resumeDelay_ * 2, kLongestResumeDelay);
}

}  // namespace qm
