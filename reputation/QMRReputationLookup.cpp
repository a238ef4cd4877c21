#include "reputation/QMRReputationLookup.hpp"

#include <array>
#include <utility>

#include "filefacts/QMRHashCacheEntry.hpp"
#include "filefacts/QMRHashProvider.hpp"
#include "filefacts/QMRHashProviderProtocol.hpp"
#include "filefacts/QMRPathAnonymizer.hpp"
#include "foundation/error.hpp"
#include "foundation/internal_inconsistency.hpp"
#include "foundation/object_description.hpp"
#include "foundation/strings.hpp"
#include "platform/activity.hpp"
#include "reputation/QMRFileReputationRequest.hpp"

namespace {

constexpr const char* kMustBeOverridden = "This method must be overridden by subclass";

// An answer that no backend was asked for.
std::shared_ptr<const QMRFileReputationResult> unknownResult(const QMRFileReputationRequest& request) {
  return QMRFileReputationResult::resultFromRequest(request, qm::reputation_level::unknown, std::nullopt, 0,
                                                    0);
}

}  // namespace

QMRReputationLookup::QMRReputationLookup(std::string className)
    : className_(std::move(className)), log_(qm::Log::create(qm::kQMRLogSubsystem, className_)) {}

std::string QMRReputationLookup::description() const {
  return "<" + qm::objectDescription(className_, this) +
         ": URL cloudScan: " + (useCloudScanForURLLookup() ? "1" : "0") + ">";
}

const qm::Dictionary& QMRReputationLookup::kCategoryMapping() {
  static const qm::Dictionary mapping{
      {"banking_login", "kvy_banking"},
      {"banking_logout", "kvy_banking_logout"},
      {"banking_safe", "safe"},
      {"financial", "banking"},
      {"tracking_cookie", "kvy_tracking_cookie"},
      {"tracking_domain", "kvy_tracking_domain"},
      {"tracking_object", "kvy_tracking_object"},
      {"tracking_script", "kvy_tracking_script"},
  };
  return mapping;
}

const qm::Dictionary& QMRReputationLookup::kUnknownRating() {
  static const qm::Dictionary rating{{"cats", qm::Dictionary{{"safe", 0}}}};
  return rating;
}

std::string QMRReputationLookup::descriptionForReputationLevel(qm::ReputationLevel level) {
  static constexpr std::array<const char*, 8> descriptions{"untrusted",  "unknown", "trusted", "unwanted",
                                                           "suspicious", "spam",    "error",   "undetected"};
  return level < descriptions.size() ? descriptions[level] : "spam";
}

void QMRReputationLookup::addBaseMetadataValue(qm::Value value, const std::string& key) {
  qm::Dictionary metadata = baseMetadata().value_or(qm::Dictionary());
  metadata.insert_or_assign(key, std::move(value));
  setBaseMetadata(std::move(metadata));
}

void QMRReputationLookup::reputationForFile(const std::shared_ptr<QMRFileReputationRequest>& request,
                                            const qm::FileReputationCompletion& reply) {
  if (!shouldContactReputationBackendForRequest(request, reply)) return;
  if (!request->hashes()) addMissingHashes(*request);
  const std::shared_ptr<const QMRHashCacheEntry> hashes = request->hashes();
  request->setMetadata(
      addFileContentMetadataForPath(request->path(), hashes, request->teamID(), request->metadata()));

  if (!request->isAOTBinary() && request->isDownloadedFile()) {
    qm::initiateActivity("Requesting cloud scan", [&] { cloudScanForFile(request, reply); });
    return;
  }
  if (hashes && hashes->sha1()) {
    qm::initiateActivity("Requesting QVS scan", [&] { qvsScanForFile(request, true, reply); });
    return;
  }
  if (reply) reply(unknownResult(*request), nullptr);
}

void QMRReputationLookup::addMissingHashes(QMRFileReputationRequest& request) const {
  const std::shared_ptr<QMRHashProviderProtocol> provider = hashProvider();
  if (!provider) return;
  const std::string path = request.path();
  QM_LOG_DEBUG(log_, "Will query hash provider %@ for hashes for file %@", provider, path);
  qm::ErrorPtr error;
  request.setHashes(provider->hashesForPath(path, &error));
  if (!request.hashes()) QM_LOG_ERROR(log_, "Hashing failed for %{public}@: %{public}@", path, error);
}

bool QMRReputationLookup::shouldContactReputationBackendForRequest(
    const std::shared_ptr<QMRFileReputationRequest>& request,
    const qm::FileReputationCompletion& reply) const {
  const LookupEnabledCallback isLookupEnabled = lookupEnabledCallback();
  if (!isLookupEnabled || isLookupEnabled()) return true;
  QM_LOG_DEBUG(log_, "Reputation lookup is disabled. Not performing Cloud scan");
  if (reply) reply(unknownResult(*request), nullptr);
  return false;
}

qm::ReputationLevel QMRReputationLookup::updateReputationLevel(qm::ReputationLevel level,
                                                               std::uint8_t prevalence) const {
  const PrevalenceThresholdCallback thresholdCallback = prevalenceThresholdCallback();
  if (!thresholdCallback) {
    QM_LOG_DEBUG(log_, "Prevalence threshold is not configured. Not performing prevalence check");
    return level;
  }
  QM_LOG_DEBUG(log_, "Prevalence threshold is configured. Will perform prevalence check");
  const std::int32_t threshold = thresholdCallback();
  if (level == qm::reputation_level::unknown && threshold <= std::int32_t{prevalence}) {
    QM_LOG_DEBUG(log_, "Allowing due to prevalence (prevalence %{public}d, threshold %{public}d)", prevalence,
                 threshold);
    return qm::reputation_level::trusted;
  }
  QM_LOG_DEBUG(log_, "Not overriding reputation lookup result due to prevalence %d (threshold=%d)",
               prevalence, threshold);
  return level;
}

qm::Dictionary QMRReputationLookup::addFileContentMetadataForPath(
    const std::string& path, const std::shared_ptr<const QMRHashCacheEntry>& hashes,
    const std::optional<std::string>& teamID, qm::Dictionary metadata) const {
  const std::optional<qm::Dictionary> base = baseMetadata();
  if (base) {
    for (const auto& [key, value] : *base) metadata.insert_or_assign(key, value);
  }
  metadata.insert_or_assign("file_path",
                            QMRPathAnonymizer::anonymize(qm::stringByDeletingLastPathComponent(path)));
  metadata.insert_or_assign("file_name", QMRPathAnonymizer::anonymize(qm::lastPathComponent(path)));
  if (teamID && !teamID->empty()) metadata.insert_or_assign("teamid", *teamID);
  if (!hashes) return metadata;

  if (const auto sha1 = hashes->sha1())
    metadata.insert_or_assign("sha1", QMRHashProvider::sha1StringForBuffer(sha1->bytes()));
  if (const auto sha256 = hashes->sha256())
    metadata.insert_or_assign("sha256", QMRHashProvider::sha256StringForBuffer(sha256->bytes()));
  if (const auto magicBytes = hashes->magicBytes())
    metadata.insert_or_assign("magic_bytes", qm::base64(magicBytes->bytes(), magicBytes->length()));
  return metadata;
}

qm::ErrorPtr QMRReputationLookup::lookupErrorWithCode(std::int64_t code, const std::string& message) const {
  return qm::makeError(kErrorDomain, code, {{qm::kLocalizedDescriptionKey, message}});
}

bool QMRReputationLookup::handleCloudErrorResponse(const qm::ErrorPtr& error, const qm::URL& url,
                                                   const qm::URLReputationCompletion& callback) const {
  if (!error) return false;
  QM_LOG_ERROR(log_, "Error occurred when performing reputation lookup for URL %@: %{public}@", url, error);
  answerUnrated(lookupErrorWithCode(error->code(), error->description()), callback);
  return true;
}

std::optional<qm::URL> QMRReputationLookup::validateURL(const std::string& url,
                                                        const qm::URLReputationCompletion& callback) const {
  const std::optional<qm::URL> parsed = qm::URL::create(url);
  if (!url.empty() && parsed) return parsed;
  QM_LOG_ERROR(log_, "Invalid URL (%@) passed. Not performing reputation lookup", parsed);
  answerUnrated(lookupErrorWithCode(0, "Invalid URL passed"), callback);
  return std::nullopt;
}

void QMRReputationLookup::answerUnrated(const qm::ErrorPtr& error,
                                        const qm::URLReputationCompletion& callback) {
  if (callback) callback(std::make_shared<QMRURLReputationResult>(kUnknownRating(), std::uint64_t{0}, error));
}

void QMRReputationLookup::reputationForURL(const std::string&, std::uint32_t,
                                           const qm::URLReputationCompletion&) {
  throw qm::InternalInconsistencyException(kMustBeOverridden);
}

void QMRReputationLookup::qvsScanForFile(const std::shared_ptr<QMRFileReputationRequest>&, bool,
                                         const qm::FileReputationCompletion&) {
  throw qm::InternalInconsistencyException(kMustBeOverridden);
}

void QMRReputationLookup::cloudScanForFile(const std::shared_ptr<QMRFileReputationRequest>&,
                                           const qm::FileReputationCompletion&) {
  throw qm::InternalInconsistencyException(kMustBeOverridden);
}
