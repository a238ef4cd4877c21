#include "companions/sample_analysis.hpp"

#include <utility>

#include "foundation/value.hpp"
#include "platform/SVKSkyvaultServiceClientProtocol.hpp"

namespace qm {

std::int64_t SampleAnalysisOptions::currentSeconds() {
  return Date::now().nanosecondsSince1970 / 1'000'000'000;
}

SampleAnalysis::SampleAnalysis(const SampleAnalysisOptions& options)
    : undetectedTTL_(options.undetectedTTL),
      detectedTTL_(options.detectedTTL),
      now_(options.now),
      rules_(Rules{options.rules, 0}) {}

void SampleAnalysis::setRules(std::shared_ptr<const SampleRules> rules, std::int64_t changed) {
  rules_.set({std::move(rules), changed});
}

bool SampleAnalysis::canExamine() const {
  const std::shared_ptr<const SampleRules> rules = rules_.get().compiled;
  return rules != nullptr && rules->count() > 0;
}

std::optional<StoredVerdict> SampleAnalysis::analyze(const void* bytes, std::size_t length,
                                                     std::chrono::seconds limit, ErrorPtr* error) const {
  StoredVerdict found;
  // When it began, and before the rules are taken: rules that change meanwhile make it be repeated.
  found.added = now_();
  const std::shared_ptr<const SampleRules> rules = rules_.get().compiled;
  if (rules == nullptr || rules->count() == 0) {
    setError(error, makeError(kSampleRulesErrorDomain, static_cast<std::int64_t>(SampleRulesError::failed),
                              {{kLocalizedDescriptionKey, "There are no sample rules"}}));
    return std::nullopt;
  }
  ErrorPtr failure;
  const std::optional<SampleFinding> finding = rules->scan(bytes, length, limit, &failure);
  if (failure != nullptr) {
    setError(error, failure);
    return std::nullopt;
  }
  found.verdict = finding ? finding->verdict : SVKSkyvaultSafetyVerdictValueUndetected;
  if (finding) found.infectionName = finding->infectionName;
  found.ttl = finding ? detectedTTL_ : undetectedTTL_;
  found.source = kVerdictSourceAnalysis;
  return found;
}

bool SampleAnalysis::isInForce(const StoredVerdict& known) const {
  if (known.source != kVerdictSourceAnalysis) return true;
  const std::int64_t now = now_();
  const std::int64_t changed = rules_.get().changed;
  if (known.added <= changed && changed <= now) return false;  // in the same second either may be first
  const std::int64_t age = now - known.added;
  return known.verdict != SVKSkyvaultSafetyVerdictValueUndetected || (age >= 0 && age < known.ttl);
}

}  // namespace qm
