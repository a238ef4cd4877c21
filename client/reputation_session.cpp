#include "client/reputation_session.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "client/download_origin.hpp"
#include "client/reputation_message.hpp"
#include "foundation/error.hpp"
#include "foundation/strings.hpp"
#include "platform/disposal.hpp"
#include "platform/file_io.hpp"
#include "platform/user.hpp"

namespace qm {
namespace {

// Openings may all hang on one dead file system, each holding a worker of the process: few enough to leave
// workers.
constexpr std::size_t kOpeningsAtOnce = 12;
constexpr std::size_t kStuckOpeningsLimit = 24;
// Longer waits would overflow the clock.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24 * 365);

ReputationClientOptions inRange(ReputationClientOptions options) {
  options.requestsInFlight =
      std::clamp<std::size_t>(options.requestsInFlight, 1, kReputationRequestsInFlightLimit);
  options.requestTimeout = std::clamp(options.requestTimeout, std::chrono::milliseconds(1), kLongestWait);
  options.reconnectTimeout = std::min(options.reconnectTimeout, kLongestWait);
  options.delayedAnswerTimeout = std::min(options.delayedAnswerTimeout, kLongestWait);
  return options;
}

// It has the descriptor in any case.
OpenedFile adopt(FileDescriptor descriptor) {
  OpenedFile file;
  file.descriptor = std::move(descriptor);
  FileStatus status;
  if (!statDescriptor(file.descriptor.get(), status)) {
    file.errorNumber = errno;
    return file;
  }
  file.kind = status.isRegularFile ? FileKind::regular
              : status.isDirectory ? FileKind::directory
                                   : FileKind::other;
  file.size = status.size;
  return file;
}

bool isDownloaded(const ReputationQuery& query, const OpenedFile& file) {
  if (query.downloaded) return *query.downloaded;
  return file.kind == FileKind::regular && file.descriptor && hasDownloadOrigin(file.descriptor.get());
}

}  // namespace

ReputationSession::ReputationSession(ReputationClientOptions options)
    : options_(inRange(std::move(options))),
      queue_(Queue::serial("com.quillmarsh.reputation-client")),
      openers_(Queue::concurrent("com.quillmarsh.reputation-client.opening")) {}

void ReputationSession::ask(ReputationQuery query, ReputationClient::Completion completion) {
  const auto request = std::make_shared<Request>();
  request->filename = lossyUTF8(query.path);
  request->answer.path = query.path;
  request->query = std::move(query);
  request->completion = std::move(completion);
  {
    const std::lock_guard lock(idleMutex_);
    ++unanswered_;
  }
  queue_.async([self = shared_from_this(), request] {
    request->identifier = self->nextIdentifier_++;
    if (self->closed_) return self->fail(request, ReputationFailure::closed, "the client is closed");
    self->waiting_.push_back(request);
    self->pump();
  });
}

bool ReputationSession::waitUntilIdle(std::chrono::milliseconds timeout) {
  std::unique_lock lock(idleMutex_);
  return idle_.wait_for(lock, std::min(timeout, kLongestWait), [this] { return unanswered_ == 0; });
}

void ReputationSession::close() {
  if (queue_.isCurrent()) return closeOnQueue();
  queue_.sync([this] { closeOnQueue(); });
  // The failures were queued behind that: they have been delivered when this one runs.
  queue_.sync([] {});
}

void ReputationSession::closeOnQueue() {
  if (closed_) return;
  closed_ = true;
  if (connection_) std::exchange(connection_, {}).cancel();
  failAll(ReputationFailure::closed, "the client was closed");
  endAllFollowing(ReputationFailure::closed, "the client was closed");
}

// Gives questions their turn while there are places. Called after everything that frees one.
void ReputationSession::pump() {
  while (!closed_ && !resuming_ && !waiting_.empty() && inFlight_.size() < options_.requestsInFlight &&
         opening_ < kOpeningsAtOnce) {
    const RequestPtr request = std::move(waiting_.front());
    waiting_.pop_front();
    if (!request->done) start(request);  // its time may have ended while it waited to be sent again
  }
}

void ReputationSession::start(const RequestPtr& request) {
  if (!request->started) {
    request->started = true;
    request->startedAt = Clock::now();
    setTimer(request, request->startedAt + options_.requestTimeout);
  }
  inFlight_.emplace(request->identifier, request);
  if (request->message) return send(request);
  open(request);
}

void ReputationSession::open(const RequestPtr& request) {
  if (stuckOpenings_ >= kStuckOpeningsLimit)
    return fail(request, ReputationFailure::timedOut,
                "too many files before it are still waiting to be opened");
  request->opening = true;
  ++opening_;
  const auto given = std::make_shared<FileDescriptor>(std::move(request->query.descriptor));
  openers_.async([self = shared_from_this(), request, given] {
    const ReputationQuery& query = request->query;  // nobody changes what is used here meanwhile
    const auto file = std::make_shared<OpenedFile>(*given ? adopt(std::move(*given))
                                                          : openRegularFile(query.path, query.symbolicLinks));
    const bool downloaded = isDownloaded(query, *file);
    self->queue_.async([self, request, file, downloaded] { self->opened(request, *file, downloaded); });
  });
}

void ReputationSession::opened(const RequestPtr& request, OpenedFile& file, bool downloaded) {
  if (std::exchange(request->opening, false))
    --opening_;
  else
    --stuckOpenings_;
  if (!request->done) examined(request, file, downloaded);
  closeElsewhere(std::move(file.descriptor));  // unless it is on its way
  pump();
}

void ReputationSession::examined(const RequestPtr& request, OpenedFile& file, bool downloaded) {
  if (file.errorNumber != 0)
    fail(request, ReputationFailure::unreadableFile, systemErrorText(file.errorNumber));
  else if (file.kind != FileKind::regular)
    fail(request, ReputationFailure::notARegularFile, std::string("is a ") + name(file.kind));
  else if (file.size > kReputationMaximumFileSize)
    fail(request, ReputationFailure::fileTooLarge, "is larger than 512 MiB");
  else
    prepared(request, file, downloaded);
}

void ReputationSession::prepared(const RequestPtr& request, OpenedFile& file, bool downloaded) {
  request->answer.downloaded = downloaded;
  request->message = makeReputationRequest({.requestID = request->identifier,
                                            .filename = request->filename,
                                            .fileSize = file.size,
                                            .userID = request->query.userID.value_or(currentUserID()),
                                            .descriptor = std::move(file.descriptor),
                                            .downloaded = downloaded});
  if (!request->message) return fail(request, ReputationFailure::unreadableFile, systemErrorText(errno));
  if (request->query.delayedAnswer) {
    request->followed = true;
    followed_.emplace(request->filename, request);
  }
  // The connection may have ended while the file was opened.
  if (resuming_) return requeue(request);
  send(request);
}

void ReputationSession::fail(const RequestPtr& request, ReputationFailure failure, std::string text) {
  request->answer.failure = failure;
  request->answer.errorText = std::move(text);
  finish(request);
}

void ReputationSession::failAll(ReputationFailure failure, const std::string& text) {
  const auto inFlight = std::exchange(inFlight_, {});
  const auto waiting = std::exchange(waiting_, {});
  std::vector<RequestPtr> requests(waiting.begin(), waiting.end());
  for (const auto& entry : inFlight) requests.push_back(entry.second);
  std::sort(requests.begin(), requests.end(),
            [](const RequestPtr& a, const RequestPtr& b) { return a->identifier < b->identifier; });
  for (const RequestPtr& request : requests) fail(request, failure, text);
}

// The one place where a question gets its answer.
void ReputationSession::finish(const RequestPtr& request) {
  if (std::exchange(request->done, true)) return;
  inFlight_.erase(request->identifier);
  dropTimer(request);
  request->link = 0;
  releaseElsewhere(std::exchange(request->message, {}));
  closeElsewhere(std::move(request->query.descriptor));
  if (std::exchange(request->opening, false)) {
    --opening_;
    ++stuckOpenings_;
  }
  if (request->started) request->answer.elapsed = Clock::now() - request->startedAt;
  queue_.async([self = shared_from_this(), completion = std::exchange(request->completion, {}),
                answer = request->answer] {
    if (completion) completion(answer);
    const std::lock_guard lock(self->idleMutex_);
    if (--self->unanswered_ == 0) self->idle_.notify_all();
  });
  if (request->answer.answered())
    follow(request);
  else
    forget(request);
}

}  // namespace qm
