#include "companions/sample_analysis.hpp"

#include "reputation/backends/SVKSkyvaultServiceClientProtocol.hpp"

namespace qm {

std::int64_t SampleAnalysisOptions::currentSeconds() {
  return Date::now().nanosecondsSince1970 / 1'000'000'000;
}

std::optional<StoredVerdict> analyzeSample(const SampleAnalysisOptions& options, const void* bytes,
                                           std::size_t length, std::chrono::seconds limit, ErrorPtr* error) {
  ErrorPtr failure;
  const std::optional<SampleFinding> finding = options.rules->scan(bytes, length, limit, &failure);
  if (failure != nullptr) {
    setError(error, failure);
    return std::nullopt;
  }
  StoredVerdict found;
  found.verdict = finding ? finding->verdict : SVKSkyvaultSafetyVerdictValueUndetected;
  if (finding) found.infectionName = finding->infectionName;
  found.ttl = finding ? options.detectedTTL : options.undetectedTTL;
  found.source = kVerdictSourceAnalysis;
  found.added = options.now();
  return found;
}

bool isInForce(const SampleAnalysisOptions& options, const StoredVerdict& known) {
  if (known.source != kVerdictSourceAnalysis || known.verdict != SVKSkyvaultSafetyVerdictValueUndetected)
    return true;
  const std::int64_t age = options.now() - known.added;
  return age >= 0 && age < known.ttl;
}

}  // namespace qm
