#include "reputation/QMRFileReputationResult.hpp"

#include <utility>

#include "foundation/object_description.hpp"
#include "reputation/QMRFileReputationRequest.hpp"

QMRFileReputationResult::QMRFileReputationResult(std::optional<std::string> filename,
                                                 std::uint32_t fileAccessUserID,
                                                 qm::ReputationLevel reputationVerdict,
                                                 std::optional<std::string> infectionName,
                                                 std::uint8_t prevalence, std::uint64_t ttl) {
  setFilename(std::move(filename));
  setFileAccessUserID(fileAccessUserID);
  setReputationVerdict(reputationVerdict);
  setInfectionName(std::move(infectionName));
  setPrevalence(prevalence);
  setTtl(ttl);
}

std::shared_ptr<QMRFileReputationResult> QMRFileReputationResult::errorResultWithFile(
    std::optional<std::string> file, std::uint32_t fileAccessUserID) {
  return std::make_shared<QMRFileReputationResult>(std::move(file), fileAccessUserID,
                                                   qm::reputation_level::error, std::nullopt, std::uint8_t{0},
                                                   std::uint64_t{0});
}

std::shared_ptr<QMRFileReputationResult> QMRFileReputationResult::resultFromRequest(
    const QMRFileReputationRequest& request, qm::ReputationLevel verdict,
    std::optional<std::string> infectionName, std::uint8_t prevalence, std::uint64_t ttl) {
  return std::make_shared<QMRFileReputationResult>(request.path(), request.fileAccessUserID(), verdict,
                                                   std::move(infectionName), prevalence, ttl);
}

std::string QMRFileReputationResult::description() const {
  return qm::objectDescription("QMRFileReputationResult", this);
}
