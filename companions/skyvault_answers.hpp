// What the Skyvault agent answers: looks hashes and URLs up in the verdict store, decides which samples it
// wants and examines them. Knows nothing of messages; the service around it does.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "companions/live_verdict_store.hpp"
#include "companions/sample_rules.hpp"
#include "foundation/error.hpp"
#include "foundation/value.hpp"
#include "platform/SVKSkyvaultServiceClientProtocol.hpp"

namespace qm {

struct SkyvaultAnswersOptions {
  // Null or without a rule: no sample is asked for.
  std::shared_ptr<const SampleRules> rules;
  // Bytes. A sample is held in memory as a whole while it is examined.
  std::uint64_t maximumSampleSize = 64 << 20;
  std::chrono::seconds scanLimit{60};
  // How long an asker may keep "unknown", and how long an analysis that found nothing counts: seconds.
  std::uint32_t unknownTTL = 600;
  std::uint32_t undetectedTTL = 86400;
  // How long an asker may keep what an analysis found.
  std::uint32_t detectedTTL = 604800;
  // Seconds since 1970; for tests.
  std::int64_t (*now)() = nullptr;
};

// Any thread.
class SkyvaultAnswers {
 public:
  SkyvaultAnswers(std::string storePath, SkyvaultAnswersOptions options);

  // Opens the store; false, and a line in the log, when it cannot be used. Answers are given all the same.
  bool prepare() { return store_.open(); }

  SVKSkyvaultResponse lookUp(const SHA256Value& sha256);
  // The record of the URL itself, else that of its host, else that of the closest domain above it. With a
  // filter only those of its categories that the filter names.
  SVKSkyvaultResponse lookUpURL(std::string_view url,
                                const std::optional<std::vector<std::string>>& categoriesWanted);
  // By the metadata's "sha256"; with mayAskForSample an unknown file that may be dangerous is asked for.
  SVKSkyvaultResponse analyzeMetadata(const Dictionary& metadata, bool mayAskForSample);
  // Reads the whole file, from its beginning and without moving its offset, examines it and remembers the
  // outcome. Takes as long as that takes. Nothing, with an error of qm::skyvault::kErrorDomain, for what is
  // no regular file.
  std::optional<SVKSkyvaultResponse> analyzeSample(int descriptor, ErrorPtr* error);

  // The answers that need no look at anything.
  SVKSkyvaultResponse throttled() const;

 private:
  SVKSkyvaultResponse unknown(std::uint64_t options, std::uint32_t ttl) const;
  bool wantsSample(const Dictionary& metadata, const std::optional<StoredVerdict>& known) const;
  SVKSkyvaultResponse examine(const std::uint8_t* bytes, std::size_t length);

  const SkyvaultAnswersOptions options_;
  LiveVerdictStore store_;
};

}  // namespace qm
