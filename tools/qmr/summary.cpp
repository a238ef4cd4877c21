#include "tools/qmr/summary.hpp"

#include <numeric>
#include <vector>

#include "foundation/strings.hpp"
#include "tools/qmr/exit_status.hpp"

namespace qm::qmr {
namespace {

// The worst first.
constexpr std::array kOrder{
    ReputationVerdict::untrusted, ReputationVerdict::unwanted, ReputationVerdict::suspicious,
    ReputationVerdict::spam,      ReputationVerdict::unknown,  ReputationVerdict::undetected,
    ReputationVerdict::trusted,
};

}  // namespace

std::string counted(std::size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string NotAsked::text() const {
  if (isUncounted_) return "; more were not asked";
  if (count_ == 0) return {};
  return "; " + std::to_string(count_) + (count_ == 1 ? " was" : " were") + " not asked";
}

void Summary::add(const ReputationAnswer& answer) {
  if (answer.answered())
    ++count(answer.verdict);
  else
    ++unanswered_;
}

void Summary::replace(ReputationVerdict before, ReputationVerdict now) {
  --count(before);
  ++count(now);
}

std::size_t Summary::files() const {
  return std::accumulate(verdicts_.begin(), verdicts_.end(), unanswered_);
}

std::string Summary::text() const {
  std::string verdicts;
  for (const ReputationVerdict verdict : kOrder) {
    const std::size_t number = verdicts_[static_cast<std::size_t>(verdict)];
    if (number > 0) verdicts += (verdicts.empty() ? "" : ", ") + std::to_string(number) + " " + name(verdict);
  }
  std::vector<std::string> parts;
  if (!verdicts.empty()) parts.push_back(verdicts);
  if (unanswered_ > 0) parts.push_back(std::to_string(unanswered_) + " not answered");
  if (skippedLinks_ > 0)
    parts.push_back(counted(skippedLinks_, "symbolic link", "symbolic links") + " not followed");
  const std::string all = componentsJoinedByString(parts, "; ");
  return counted(files(), "file", "files") + (all.empty() ? "" : ": ") + all;
}

int Summary::exitStatus() const {
  for (const ReputationVerdict verdict : kOrder)
    if (isBad(verdict) && verdicts_[static_cast<std::size_t>(verdict)] > 0) return kBadFound;
  return unanswered_ > 0 ? kNotAnswered : kNothingBad;
}

}  // namespace qm::qmr
