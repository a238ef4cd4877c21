// What a program learns about one file: the reputation service's answer, or why there is none.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "foundation/value.hpp"

namespace qm {

// The verdicts, with their values on the wire.
enum class ReputationVerdict : std::uint8_t {
  untrusted = 0,
  unknown = 1,
  trusted = 2,
  unwanted = 3,
  suspicious = 4,
  spam = 5,
  error = 6,
  undetected = 7,
};
inline constexpr int kReputationVerdictCount = 8;

// "untrusted", "unknown", ...
const char* name(ReputationVerdict verdict);
// Untrusted, unwanted, suspicious and spam.
bool isBad(ReputationVerdict verdict);

// Why a question has no verdict.
enum class ReputationFailure : std::uint8_t {
  none,
  unreadableFile,      // missing, no permission, ...: the file could not be opened
  notARegularFile,     // a directory, pipe, socket, device: never opened
  fileTooLarge,        // above kReputationMaximumFileSize: not sent
  serviceUnavailable,  // nobody listens under the service's name
  refused,             // connections end before anything is answered: the service does not admit this program
  connectionLost,      // the service ended, twice while it had the question, or dropped the question
  timedOut,            // no answer in time
  malformedAnswer,     // an answer that does not follow the protocol
  reportedByService,   // the service answered with an error
  closed,              // the client was closed before the answer
};
// A stable word for each: "none", "unreadable-file", "not-a-regular-file", "file-too-large",
// "service-unavailable", "refused", "connection-lost", "timed-out", "malformed-answer",
// "reported-by-service", "closed".
const char* name(ReputationFailure failure);

struct ReputationAnswer {
  std::string path;         // as in the question
  bool delayed = false;     // a later answer to a question that was answered before
  bool downloaded = false;  // asked about as a downloaded file

  ReputationFailure failure = ReputationFailure::none;
  std::string errorText;  // for people; empty without a failure

  // With a failure the verdict is `error` and the rest as it stands here.
  ReputationVerdict verdict = ReputationVerdict::error;
  std::uint8_t prevalence = 0;  // how widespread the file is
  std::int64_t ttl = 0;         // how long the verdict may be kept, as the backend gave it (seconds)
  std::optional<std::string>
      infectionName;  // of a bad file; text from outside, not fit for a terminal as it is

  std::optional<Date> replyTime;        // the service's clock when it answered
  std::chrono::nanoseconds elapsed{0};  // from the question's turn to the answer; to this one when delayed

  bool answered() const { return failure == ReputationFailure::none; }
};

}  // namespace qm
