// Delayed answers, and everything that has a deadline.
#include <utility>

#include "client/reputation_message.hpp"
#include "client/reputation_session.hpp"

namespace qm {

// After the reply: what overtook it is delivered, and the wait for more begins.
void ReputationSession::follow(const RequestPtr& request) {
  if (!request->followed) return;
  for (ReputationAnswer& answer : std::exchange(request->early, {}))
    deliverDelayed(request, std::move(answer));
  setTimer(request, Clock::now() + options_.delayedAnswerTimeout);
}

void ReputationSession::deliverDelayed(const RequestPtr& request, ReputationAnswer answer) const {
  queue_.async([receiver = request->query.delayedAnswer, answer = std::move(answer)] { receiver(answer); });
}

void ReputationSession::handleDelayedResponse(const XPCDictionary& response) {
  const auto filename = response.getString("filename");
  if (!filename) return;
  const auto [first, last] = followed_.equal_range(*filename);
  for (auto entry = first; entry != last; ++entry) {
    const RequestPtr& request = entry->second;
    ReputationAnswer answer;
    answer.path = request->answer.path;
    answer.downloaded = request->answer.downloaded;
    answer.delayed = true;
    answer.elapsed = Clock::now() - request->startedAt;
    readReputationResponse(response, answer);
    if (request->done)
      deliverDelayed(request, std::move(answer));
    else
      request->early.push_back(std::move(answer));
  }
}

void ReputationSession::endFollowing(const RequestPtr& request, ReputationFailure failure, std::string text) {
  dropTimer(request);
  forget(request);
  ReputationAnswer answer;
  answer.path = request->answer.path;
  answer.downloaded = request->answer.downloaded;
  answer.delayed = true;
  answer.elapsed = Clock::now() - request->startedAt;
  answer.failure = failure;
  answer.errorText = std::move(text);
  deliverDelayed(request, std::move(answer));
}

void ReputationSession::forget(const RequestPtr& request) {
  if (!std::exchange(request->followed, false)) return;
  request->early.clear();
  const auto [first, last] = followed_.equal_range(request->filename);
  for (auto entry = first; entry != last; ++entry) {
    if (entry->second != request) continue;
    followed_.erase(entry);
    return;
  }
}

// Of all questions that have their answer; the others go on.
void ReputationSession::endAllFollowing(ReputationFailure failure, const std::string& text) {
  std::vector<RequestPtr> ended;
  for (const auto& entry : followed_)
    if (entry.second->done) ended.push_back(entry.second);
  for (const RequestPtr& request : ended) endFollowing(request, failure, text);
}

void ReputationSession::setTimer(const RequestPtr& request, Clock::time_point when) {
  dropTimer(request);
  request->timer = timers_.emplace(when, request);
  request->hasTimer = true;
  armTimers();
}

void ReputationSession::dropTimer(const RequestPtr& request) {
  if (std::exchange(request->hasTimer, false)) timers_.erase(request->timer);
}

// The queue's timers cannot be cancelled: one is under way for the earliest deadline, and looks again when it
// comes.
void ReputationSession::armTimers() {
  if (timers_.empty() || timers_.begin()->first >= armedFor_) return;
  armedFor_ = timers_.begin()->first;
  queue_.after(armedFor_ - Clock::now(), [weak = weak_from_this(), armedFor = armedFor_] {
    const auto self = weak.lock();
    if (!self || self->armedFor_ != armedFor) return;
    self->armedFor_ = Clock::time_point::max();
    self->fireTimers();
  });
}

void ReputationSession::fireTimers() {
  const Clock::time_point now = Clock::now();
  while (!timers_.empty() && timers_.begin()->first <= now) {
    const RequestPtr request = timers_.begin()->second;
    dropTimer(request);
    if (request->done)
      endFollowing(request, ReputationFailure::timedOut, "no further answer came in time");
    else
      fail(request, ReputationFailure::timedOut, "no answer in time");
  }
  armTimers();
  pump();
}

}  // namespace qm
