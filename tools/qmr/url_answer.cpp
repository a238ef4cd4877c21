#include "tools/qmr/url_answer.hpp"

namespace qm::qmr {
namespace {

constexpr const char* kScoresKey = "cats";
constexpr const char* kSafeKey = "safe";

}  // namespace

const char* name(URLFailure failure) {
  switch (failure) {
    case URLFailure::none:
      return "none";
    case URLFailure::reportedByBackend:
      return "reported-by-backend";
    case URLFailure::dropped:
      return "dropped";
    case URLFailure::timedOut:
      return "timed-out";
  }
  return "none";
}

URLAnswer urlAnswerFrom(const QMRURLReputationResult& result) {
  URLAnswer answer;
  if (const ErrorPtr error = result.error()) {
    answer.failure = URLFailure::reportedByBackend;
    answer.errorText = error->localizedDescription();
    answer.errorCode = error->code();
    return answer;
  }
  answer.ttl = result.ttl();
  const Dictionary categories = result.categories();
  const auto* scores = find<Dictionary>(categories, kScoresKey);
  if (scores == nullptr) return answer;
  for (const auto& [category, score] : *scores) answer.categories[category] = score.integerValue();
  if (auto safe = answer.categories.extract(kSafeKey)) answer.safe = safe.mapped();
  return answer;
}

}  // namespace qm::qmr
