// The answer to a QMRFileReputationRequest, made by the provider or a backend and turned into the reply.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "foundation/property.hpp"
#include "reputation/reputation_level.hpp"

class QMRFileReputationRequest;

class QMRFileReputationResult {
 public:
  QMRFileReputationResult(std::optional<std::string> filename, std::uint32_t fileAccessUserID,
                          qm::ReputationLevel reputationVerdict, std::optional<std::string> infectionName,
                          std::uint8_t prevalence, std::uint64_t ttl);

  // Level 6 (error), no infection name, prevalence and ttl 0.
  static std::shared_ptr<QMRFileReputationResult> errorResultWithFile(std::optional<std::string> file,
                                                                      std::uint32_t fileAccessUserID);
  // File name and user are the request's.
  static std::shared_ptr<QMRFileReputationResult> resultFromRequest(const QMRFileReputationRequest& request,
                                                                    qm::ReputationLevel verdict,
                                                                    std::optional<std::string> infectionName,
                                                                    std::uint8_t prevalence,
                                                                    std::uint64_t ttl);

  // The request's path.
  std::optional<std::string> filename() const { return filename_.get(); }
  void setFilename(std::optional<std::string> filename) { filename_.set(std::move(filename)); }

  std::uint32_t fileAccessUserID() const { return fileAccessUserID_.get(); }
  void setFileAccessUserID(std::uint32_t userID) { fileAccessUserID_.set(userID); }

  qm::ReputationLevel reputationVerdict() const { return reputationVerdict_.get(); }
  void setReputationVerdict(qm::ReputationLevel verdict) { reputationVerdict_.set(verdict); }

  std::optional<std::string> infectionName() const { return infectionName_.get(); }
  void setInfectionName(std::optional<std::string> name) { infectionName_.set(std::move(name)); }

  // How widespread the file is, 0 to 255.
  std::uint8_t prevalence() const { return prevalence_.get(); }
  void setPrevalence(std::uint8_t prevalence) { prevalence_.set(prevalence); }

  // How long the answer may be cached, in the backend's unit; 0 when the daemon made the answer itself.
  std::uint64_t ttl() const { return ttl_.get(); }
  void setTtl(std::uint64_t ttl) { ttl_.set(ttl); }

  std::string description() const;

 private:
  qm::Property<std::optional<std::string>> filename_;
  qm::Property<std::uint32_t> fileAccessUserID_;
  qm::Property<qm::ReputationLevel> reputationVerdict_;
  qm::Property<std::optional<std::string>> infectionName_;
  qm::Property<std::uint8_t> prevalence_;
  qm::Property<std::uint64_t> ttl_;
};

namespace qm {

// How every operation on a file completes: a result, and on failure an error beside it. The result may be
// null together with an error (a caller that waited for another's failed analysis). Called on any thread.
using FileReputationCompletion =
    Block<void(const std::shared_ptr<const QMRFileReputationResult>& result, const ErrorPtr& error)>;

}  // namespace qm
