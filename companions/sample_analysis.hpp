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
#include "foundation/property.hpp"

namespace qm {

struct SampleAnalysisOptions {
  // Null or without a rule: nothing can be examined. Others may take their place later.
  std::shared_ptr<const SampleRules> rules;
  // Bytes. A sample is held in memory as a whole while it is examined.
  std::uint64_t maximumSampleSize = 64 << 20;
  // How long an analysis that found nothing counts, and how long an asker may keep what one found: seconds.
  std::uint32_t undetectedTTL = 86400;
  std::uint32_t detectedTTL = 604800;
  // Seconds since 1970; for tests.
  std::int64_t (*now)() = currentSeconds;

 private:
  static std::int64_t currentSeconds();
};

// Any thread.
class SampleAnalysis {
 public:
  explicit SampleAnalysis(const SampleAnalysisOptions& options);

  // From now on samples are examined with these. What was found before the rules were changed (seconds since
  // 1970) is no longer in force.
  void setRules(std::shared_ptr<const SampleRules> rules, std::int64_t changed);

  bool canExamine() const;
  // The verdict; nothing with an error of kSampleRulesErrorDomain.
  std::optional<StoredVerdict> analyze(const void* bytes, std::size_t length, std::chrono::seconds limit,
                                       ErrorPtr* error) const;
  // Nothing more is to be found out: the verdict is a person's, or that of an analysis with the rules as they
  // are now that found something or is not too old.
  bool isInForce(const StoredVerdict& known) const;

 private:
  struct Rules {
    std::shared_ptr<const SampleRules> compiled;
    std::int64_t changed = 0;
  };

  const std::uint32_t undetectedTTL_;
  const std::uint32_t detectedTTL_;
  std::int64_t (*const now_)();
  Property<Rules> rules_;
};

}  // namespace qm
