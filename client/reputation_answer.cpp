#include "client/reputation_answer.hpp"

namespace qm {

const char* name(ReputationVerdict verdict) {
  switch (verdict) {
    case ReputationVerdict::untrusted:
      return "untrusted";
    case ReputationVerdict::unknown:
      return "unknown";
    case ReputationVerdict::trusted:
      return "trusted";
    case ReputationVerdict::unwanted:
      return "unwanted";
    case ReputationVerdict::suspicious:
      return "suspicious";
    case ReputationVerdict::spam:
      return "spam";
    case ReputationVerdict::error:
      return "error";
    case ReputationVerdict::undetected:
      break;
  }
  return "undetected";
}

bool isBad(ReputationVerdict verdict) {
  switch (verdict) {
    case ReputationVerdict::untrusted:
    case ReputationVerdict::unwanted:
    case ReputationVerdict::suspicious:
    case ReputationVerdict::spam:
      return true;
    default:
      return false;
  }
}

const char* name(ReputationFailure failure) {
  switch (failure) {
    case ReputationFailure::none:
      return "none";
    case ReputationFailure::unreadableFile:
      return "unreadable-file";
    case ReputationFailure::notARegularFile:
      return "not-a-regular-file";
    case ReputationFailure::fileTooLarge:
      return "file-too-large";
    case ReputationFailure::serviceUnavailable:
      return "service-unavailable";
    case ReputationFailure::refused:
      return "refused";
    case ReputationFailure::connectionLost:
      return "connection-lost";
    case ReputationFailure::timedOut:
      return "timed-out";
    case ReputationFailure::malformedAnswer:
      return "malformed-answer";
    case ReputationFailure::reportedByService:
      return "reported-by-service";
    case ReputationFailure::closed:
      break;
  }
  return "closed";
}

}  // namespace qm
