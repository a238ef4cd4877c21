// The state of one ReputationClient. Everything in it belongs to one serial queue, on which the connection's
// events and the user's completions run too. Nothing there waits for a file: what opens one or looks at it is
// done on another queue, and so is what closes it, because both can wait for a slow disk, or for ever.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "client/reputation_client.hpp"
#include "platform/queue.hpp"
#include "platform/regular_file.hpp"
#include "platform/xpc.hpp"

namespace qm {

class ReputationSession : public std::enable_shared_from_this<ReputationSession> {
 public:
  explicit ReputationSession(ReputationClientOptions options);

  void ask(ReputationQuery query, ReputationClient::Completion completion);
  bool waitUntilIdle(std::chrono::milliseconds timeout);
  void close();

 private:
  using Clock = std::chrono::steady_clock;
  struct Request;
  using RequestPtr = std::shared_ptr<Request>;
  using Timers = std::multimap<Clock::time_point, RequestPtr>;

  // One question, from ask() until its last delayed answer.
  struct Request {
    std::uint64_t identifier = 0;
    ReputationQuery query;
    std::string filename;  // the path as the service is told
    ReputationClient::Completion completion;
    ReputationAnswer answer;
    std::vector<ReputationAnswer> early;  // delayed answers that overtook the reply

    XPCDictionary message;   // holds the open file while the question may have to be sent again
    std::uint64_t link = 0;  // the connection it was sent over and not answered on; 0 none
    int losses = 0;          // connections that ended while they had the question
    bool started = false;    // had its turn
    bool opening = false;
    bool done = false;
    bool followed = false;
    Clock::time_point startedAt;
    Timers::iterator timer;  // the deadline of the answer, then of delayed ones
    bool hasTimer = false;
  };

  // Asking: reputation_session.cpp
  void pump();
  void start(const RequestPtr& request);
  void open(const RequestPtr& request);
  void opened(const RequestPtr& request, OpenedFile& file, bool downloaded);
  void examined(const RequestPtr& request, OpenedFile& file, bool downloaded);
  void prepared(const RequestPtr& request, OpenedFile& file, bool downloaded);
  void fail(const RequestPtr& request, ReputationFailure failure, std::string text);
  void failAll(ReputationFailure failure, const std::string& text);
  void finish(const RequestPtr& request);
  void closeOnQueue();

  // Delayed answers and deadlines: reputation_session_follow.cpp
  void follow(const RequestPtr& request);
  void deliverDelayed(const RequestPtr& request, ReputationAnswer answer) const;
  void handleDelayedResponse(const XPCDictionary& response);
  void endFollowing(const RequestPtr& request, ReputationFailure failure, std::string text);
  void forget(const RequestPtr& request);
  void endAllFollowing(ReputationFailure failure, const std::string& text);
  void setTimer(const RequestPtr& request, Clock::time_point when);
  void dropTimer(const RequestPtr& request);
  void armTimers();
  void fireTimers();

  // The connection: reputation_session_link.cpp
  void connect();
  void send(const RequestPtr& request);
  void handleEvent(std::uint64_t link, const XPCObject& event);
  void handleReply(std::uint64_t link, const RequestPtr& request, const XPCObject& reply);
  void proveLink();
  void loseLink(const XPCObject& error);
  void retryUnreached(const std::vector<RequestPtr>& requests);
  void retryReached(const std::vector<RequestPtr>& requests, bool proved);
  void requeue(const RequestPtr& request);
  void resumeLater();

  const ReputationClientOptions options_;
  const Queue queue_;
  const Queue openers_;

  // On queue_ only.
  bool closed_ = false;
  std::uint64_t nextIdentifier_ = 1;
  std::deque<RequestPtr> waiting_;
  std::unordered_map<std::uint64_t, RequestPtr>
      inFlight_;                   // by identifier; those that hold a place in flight
  std::size_t opening_ = 0;        // openings under way that somebody waits for
  std::size_t stuckOpenings_ = 0;  // openings that outlived their question's deadline
  std::unordered_multimap<std::string, RequestPtr> followed_;  // by filename
  Timers timers_;
  Clock::time_point armedFor_ = Clock::time_point::max();

  XPCConnection connection_;  // null between connections
  std::uint64_t link_ = 0;    // number of the latest connection
  bool proved_ = false;       // something was received over it
  int unprovedEndings_ = 0;   // connections in a row that ended without a message
  bool resuming_ = false;     // waiting before the next connection
  bool outage_ = false;       // a service that was there has ended
  Clock::time_point outageUntil_;
  std::chrono::milliseconds resumeDelay_{0};

  // Questions without their answer; a completion that is running still counts.
  std::mutex idleMutex_;
  std::condition_variable idle_;
  std::size_t unanswered_ = 0;
};

}  // namespace qm
