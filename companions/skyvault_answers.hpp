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
#include "companions/sample_analysis.hpp"
#include "foundation/error.hpp"
#include "foundation/value.hpp"
#include "platform/SVKSkyvaultServiceClientProtocol.hpp"

namespace qm {

// No sample is asked for when nothing can be examined.
struct SkyvaultAnswersOptions : SampleAnalysisOptions {
  std::chrono::seconds scanLimit{60};
  // How long an asker may keep "unknown": seconds.
  std::uint32_t unknownTTL = 600;
};

// Any thread.
class SkyvaultAnswers {
 public:
  SkyvaultAnswers(std::string storePath, SkyvaultAnswersOptions options);

  // Opens the store; false, and a line in the log, when it cannot be used. Answers are given all the same,
  // from the rules alone and with a time to live of 0.
  bool prepare() { return store_.open(); }

  // From now on samples are examined with these. What analyses found before the rules were changed (seconds
  // since 1970) is unknown until the file is examined again.
  void setRules(std::shared_ptr<const SampleRules> rules, std::int64_t changed);

  SVKSkyvaultResponse lookUp(const SHA256Value& sha256);
  // The record of the URL itself, else that of its host, else that of the closest domain above it. With a
  // filter only those of its categories that the filter names.
  SVKSkyvaultResponse lookUpURL(std::string_view url,
                                const std::optional<std::vector<std::string>>& categoriesWanted);
  // By the metadata's "sha256" and "sha1"; with mayAskForSample an unknown file that may be
  // dangerous is asked for.
  SVKSkyvaultResponse analyzeMetadata(const Dictionary& metadata, bool mayAskForSample);
  // Reads the whole file, from its beginning and without moving its offset, examines it and remembers the
  // outcome. Takes as long as that takes. Nothing, with an error of qm::skyvault::kErrorDomain, for what is
  // no regular file.
  std::optional<SVKSkyvaultResponse> analyzeSample(int descriptor, ErrorPtr* error);

  // The answers that need no look at anything.
  SVKSkyvaultResponse throttled() const;

 private:
  SVKSkyvaultResponse unknown(std::uint64_t options, std::uint32_t ttl) const;
  bool wantsSample(const Dictionary& metadata, const std::optional<StoredVerdict>& outdated) const;
  SVKSkyvaultResponse examine(const std::uint8_t* bytes, std::size_t length);

  const SkyvaultAnswersOptions options_;
  SampleAnalysis analysis_;
  LiveVerdictStore store_;
};

}  // namespace qm
