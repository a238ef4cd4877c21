// Counts of what was found, the last line a person reads, and the exit status that follows from it.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "client/reputation_answer.hpp"

namespace qm::qmr {

// "1 file", "2 files".
std::string counted(std::size_t count, const char* one, const char* many);

// What a run that ended before its time did not get to.
class NotAsked {
 public:
  void add() { ++count_; }
  // There is more, which nobody has counted.
  void addUncounted() { isUncounted_ = true; }
  // "; 12 were not asked", "; more were not asked"; empty when all were.
  std::string text() const;

 private:
  std::size_t count_ = 0;
  bool isUncounted_ = false;
};

class Summary {
 public:
  void add(const ReputationAnswer& answer);
  // A delayed verdict takes the place of the one the file had.
  void replace(ReputationVerdict before, ReputationVerdict now);
  void addSkippedLink() { ++skippedLinks_; }
  // A question that got no answer because the run ended.
  void addUnanswered() { ++unanswered_; }

  std::size_t files() const;
  // "4 files: 1 untrusted, 1 unknown, 2 trusted; 1 not answered; 3 symbolic links not followed"
  std::string text() const;
  int exitStatus() const;

 private:
  std::size_t& count(ReputationVerdict verdict) { return verdicts_[static_cast<std::size_t>(verdict)]; }

  std::array<std::size_t, kReputationVerdictCount> verdicts_{};
  std::size_t unanswered_ = 0;
  std::size_t skippedLinks_ = 0;
};

}  // namespace qm::qmr
