// What is learned about one URL: the backend's answer, or why there is none.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "reputation/QMRURLReputationResult.hpp"

namespace qm::qmr {

enum class URLFailure : std::uint8_t {
  none,
  reportedByBackend,  // the backend answered with an error: no URL, not available, its agent failed
  dropped,            // the backend let go of the question without an answer
  timedOut,           // no answer in time
};
// A stable word for each: "none", "reported-by-backend", "dropped", "timed-out".
const char* name(URLFailure failure);

struct URLAnswer {
  std::string url;  // as in the question

  URLFailure failure = URLFailure::none;
  std::string errorText;       // for people; empty without a failure
  std::int64_t errorCode = 0;  // of a failure that the backend reported

  // With a failure as they stand here.
  std::int64_t safe = 0;                           // -100 (certainly not) to 100
  std::map<std::string, std::int64_t> categories;  // without "safe"; text from outside
  std::uint64_t ttl = 0;                           // how long the answer may be kept, in seconds

  std::chrono::nanoseconds elapsed{0};  // from the question to the answer

  bool answered() const { return failure == URLFailure::none; }
};

// Without the URL and the time.
URLAnswer urlAnswerFrom(const QMRURLReputationResult& result);

}  // namespace qm::qmr
