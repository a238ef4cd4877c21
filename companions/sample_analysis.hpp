// What an analysis of a sample means as a verdict, for all companions that examine samples: how long it
// counts and when it is to be made again.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "companions/sample_rules.hpp"
#include "companions/verdict_store.hpp"

namespace qm {

struct SampleAnalysisOptions {
  // Null or without a rule: nothing can be examined.
  std::shared_ptr<const SampleRules> rules;
  // Bytes. A sample is held in memory as a whole while it is examined.
  std::uint64_t maximumSampleSize = 64 << 20;
  // How long an analysis that found nothing counts, and how long an asker may keep what one found: seconds.
  std::uint32_t undetectedTTL = 86400;
  std::uint32_t detectedTTL = 604800;
  // Seconds since 1970; for tests.
  std::int64_t (*now)() = currentSeconds;

  bool canExamine() const { return rules != nullptr && rules->count() > 0; }

 private:
  static std::int64_t currentSeconds();
};

// The verdict of an analysis; nothing with an error of kSampleRulesErrorDomain. The rules must be there.
std::optional<StoredVerdict> analyzeSample(const SampleAnalysisOptions& options, const void* bytes,
                                           std::size_t length, std::chrono::seconds limit, ErrorPtr* error);

// Nothing more is to be found out: the verdict is a person's, or that of an analysis that found something or
// is not too old.
bool isInForce(const SampleAnalysisOptions& options, const StoredVerdict& known);

}  // namespace qm
