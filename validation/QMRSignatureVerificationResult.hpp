// What the check of a process against a code requirement found out. Made by QMRSignatureVerifier.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/error.hpp"
#include "foundation/property.hpp"
#include "platform/code_signing.hpp"

enum class QMRSignatureVerdict : std::uint8_t {
  valid = 1,    // the code satisfies the requirement
  invalid = 2,  // it does not, or the check could not be made
};

// A fresh result says "valid" until a check proves otherwise.
class QMRSignatureVerificationResult {
 public:
  QMRSignatureVerdict verdict() const { return verdict_.get(); }
  void setVerdict(QMRSignatureVerdict verdict) { verdict_.set(verdict); }

  // Of the call that failed; 0 when valid.
  qm::OSStatus status() const { return status_.get(); }
  void setStatus(qm::OSStatus status) { status_.set(status); }

  // What a failed validity check returned; null otherwise, also when another call failed.
  qm::ErrorPtr error() const { return error_.get(); }
  void setError(qm::ErrorPtr error) { error_.set(std::move(error)); }

  // The requirement text that was tried.
  std::optional<std::string> requirements() const { return requirements_.get(); }
  void setRequirements(std::optional<std::string> requirements) {
    requirements_.set(std::move(requirements));
  }

 private:
  qm::Property<QMRSignatureVerdict> verdict_{QMRSignatureVerdict::valid};
  qm::Property<qm::OSStatus> status_{qm::kSecSuccess};
  qm::Property<qm::ErrorPtr> error_;
  qm::Property<std::optional<std::string>> requirements_;
};
