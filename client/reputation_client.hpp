// The client of the reputation service: asks what is known about files. This is the one header a program
// includes.
//
//   qm::ReputationClient client;
//   client.ask({.path = "/tmp/setup.dmg"}, [](const qm::ReputationAnswer& answer) {
//     std::puts(qm::name(answer.verdict));
//   });
//   client.waitUntilIdle(std::chrono::minutes(1));
//
// The service admits only programs signed by the product's team; others get `refused`.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "client/reputation_answer.hpp"
#include "foundation/block.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/queue.hpp"
#include "platform/regular_file.hpp"
#include "platform/xpc.hpp"

namespace qm {

class ReputationSession;

inline constexpr const char* kReputationServiceName = "com.quillmarsh.qmreputationd";
// The service hashes files up to this size, in bytes; larger ones are not sent.
inline constexpr std::int64_t kReputationMaximumFileSize = 536870912;
// The service accepts this many unanswered requests of one connection and reads no further.
inline constexpr std::size_t kReputationRequestsInFlightLimit = 1024;

struct ReputationQuery {
  // Opened when the question's turn comes, and told to the service (bytes that are not UTF-8 as U+FFFD).
  // Absolute, unless there is a descriptor: then it is only a name.
  std::string path;
  // An open, readable descriptor to ask about instead of opening the path; taken over and closed after the
  // answer.
  FileDescriptor descriptor{};
  SymbolicLinks symbolicLinks = SymbolicLinks::follow;
  // Came from a download (such files get a deeper scan). Not given: what the file's origin attributes say.
  std::optional<bool> downloaded{};
  // On whose behalf the file is accessed. Not given: the user who runs this program.
  std::optional<std::uint32_t> userID{};
  // Not null: wants delayed answers. After a completion without a failure it is called for each one the
  // service sends, and at last with connectionLost, timedOut or closed when none can follow. The service
  // tells them apart by path alone: of two questions about one path both get them.
  Block<void(const ReputationAnswer&)> delayedAnswer{};
};

// Times longer than a year are taken as one.
struct ReputationClientOptions {
  // As it stands: a program of an installation with a namespace passes the name through that first.
  std::string serviceName = kReputationServiceName;
  // Questions with the service at once, 1 to kReputationRequestsInFlightLimit (others are moved into that
  // range). The rest waits in the order of asking, with nothing open.
  std::size_t requestsInFlight = 32;
  // From a question's turn to its answer, opening the file, reconnecting and the retry included.
  std::chrono::milliseconds requestTimeout = std::chrono::seconds(60);
  // How long a service that was there and ended is tried again before `serviceUnavailable`.
  std::chrono::milliseconds reconnectTimeout = std::chrono::seconds(5);
  // How long delayed answers of one question are waited for after its answer. The service gives up its own
  // analysis after ten minutes.
  std::chrono::milliseconds delayedAnswerTimeout = std::chrono::minutes(11);
  // Makes a connection, neither with a handler nor activated, instead of by name: for a service behind an
  // endpoint.
  Block<XPCConnection(const Queue& targetQueue)> connect{};
};

// Threads: every function may be called from any thread. Completions and delayed answers run one at a time on
// a queue of the client, never inside ask(); they may ask again and may close the client, but must not wait
// for another answer.
//
// Each completion runs exactly once. When the service ends while it has a question, the question is sent once
// more over a new connection; ending again, it fails with connectionLost. Delayed answers that an ended
// service still owed do not come. When the service cannot be reached, all questions asked so far fail; the
// next one tries again.
class ReputationClient {
 public:
  using Completion = Block<void(const ReputationAnswer& answer)>;

  explicit ReputationClient(ReputationClientOptions options = {});
  // Closes.
  ~ReputationClient();
  ReputationClient(const ReputationClient&) = delete;
  ReputationClient& operator=(const ReputationClient&) = delete;

  // A null completion is allowed.
  void ask(ReputationQuery query, Completion completion);

  // Until no question is without its answer, or the time is over: true when idle. Delayed answers are not
  // waited for. Not from a completion.
  bool waitUntilIdle(std::chrono::milliseconds timeout) const;

  // Everything open fails with `closed`. When it returns, nothing is called any more, unless it is called
  // from a completion: then what is open fails right after that one. What is asked later fails with `closed`
  // too.
  void close();

 private:
  std::shared_ptr<ReputationSession> session_;
};

}  // namespace qm
