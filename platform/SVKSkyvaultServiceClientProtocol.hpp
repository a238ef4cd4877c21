// What the Basalt backend needs of the Skyvault client framework: the calls it makes and what it reads from
// the answers. The framework is closed: on macOS its client is called where the framework is there, on Linux
// a client of our own stands in for it. Tests put their substitute here.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "foundation/value.hpp"
#include "platform/file_handle.hpp"
#include "platform/url.hpp"

namespace qm::skyvault {

inline constexpr const char* kServiceName = "com.quillmarsh.sp.skyvaultd";              // to be namespaced
inline constexpr const char* kProgramPath = "/Library/Quillmarsh/qxmac/bin/skyvaultd";  // to be namespaced

// The bits of the response options.
inline constexpr std::uint64_t kOptionFromServer = 1;
inline constexpr std::uint64_t kOptionSageThrottled = 2;
inline constexpr std::uint64_t kOptionSageFailed = 4;
inline constexpr std::uint64_t kOptionFailed = 8;
inline constexpr std::uint64_t kOptionSageSuccess = 16;
inline constexpr std::uint64_t kOptionSageUploadRequested = 32;
inline constexpr std::uint64_t kOptionSageUploaded = 64;
inline constexpr std::uint64_t kOptionHipsEventsRequested = 128;

// The errors of the clients, with a localized description. The framework adds errors of its own domains.
inline constexpr const char* kErrorDomain = "com.quillmarsh.SVKSkyvaultServiceClient";

enum class ErrorCode : std::int64_t {
  timedOut = 1,           // no answer within the call's time-out
  connectionLost = 2,     // the agent is not running, ended, refused this program or was given up
  malformedResponse = 3,  // the answer is none, or has values of the wrong type
  invalidRequest = 4,     // a key is missing or of the wrong type; the framework does not take the call
  notSupported = 5,       // the agent does not know this request
  unreadableSample = 6,   // no descriptor to pass on; the agent: not a regular file
  requestTooLarge = 7,    // the request holds more than a message may; it was not sent
};

}  // namespace qm::skyvault

// The safety verdict values. The texts are ours; only their equality counts.
inline constexpr const char* SVKSkyvaultSafetyVerdictValueKnownClean = "known_clean";
inline constexpr const char* SVKSkyvaultSafetyVerdictValueUndetected = "undetected";
inline constexpr const char* SVKSkyvaultSafetyVerdictValuePU = "pu";
inline constexpr const char* SVKSkyvaultSafetyVerdictValueUnwanted = "unwanted";
inline constexpr const char* SVKSkyvaultSafetyVerdictValueMalicious = "malicious";
inline constexpr const char* SVKSkyvaultSafetyVerdictValueUnknown = "unknown";

struct SVKSkyvaultSafetyVerdict {
  std::string value;
  std::optional<std::string> infectionName;
};

struct SVKSkyvaultCategory {
  std::string name;
  bool value = false;

  std::string description() const;
  friend bool operator==(const SVKSkyvaultCategory&, const SVKSkyvaultCategory&) = default;
};

class SVKSkyvaultResponse {
 public:
  SVKSkyvaultSafetyVerdict safetyVerdict;
  std::uint64_t options = 0;    // the bits of the response option flags
  std::uint64_t ttl = 0;        // seconds
  std::int64_t prevalence = 0;  // the backend keeps the low 8 bits
  std::vector<SVKSkyvaultCategory> categories;

  std::string description() const;
};

class SVKSkyvaultServiceClientProtocol {
 public:
  using Completion =
      qm::Block<void(const std::shared_ptr<const SVKSkyvaultResponse>& response, const qm::ErrorPtr& error)>;

  virtual ~SVKSkyvaultServiceClientProtocol() = default;

  // All asynchronous. Each completion is called exactly once, on a queue of the client's, with a response or
  // an error; no later than the time-out and a little.
  virtual void queryReputationForFileHash(const std::string& sha256Hex, std::chrono::milliseconds timeout,
                                          Completion completion) = 0;
  virtual void analyzeMetadata(const qm::Dictionary& metadata, std::chrono::milliseconds timeout,
                               Completion completion) = 0;
  // Keeps the handle until the completion has been called.
  virtual void analyzeFileHandle(std::shared_ptr<qm::FileHandle> fileHandle, const qm::Dictionary& metadata,
                                 std::chrono::milliseconds timeout, Completion completion) = 0;
  // Without a filter the answer has all categories, else those that the filter names.
  virtual void queryReputationForURL(const qm::URL& url,
                                     const std::optional<std::vector<std::string>>& categories,
                                     const std::optional<qm::Dictionary>& metadata,
                                     std::chrono::milliseconds timeout, Completion completion) = 0;
  virtual std::string description() const = 0;
};

namespace qm {

// A client of the agent behind the service name, as it stands. Null when there can be none: on macOS without
// the framework, on Linux when the agent's program (a product path) is not installed.
std::shared_ptr<SVKSkyvaultServiceClientProtocol> createSkyvaultServiceClient(
    const std::string& machServiceName, const std::string& agentProgram);

}  // namespace qm
