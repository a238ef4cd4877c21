#include "reputation/backends/QMRBasaltReputationLookup.hpp"

#include <array>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "filefacts/QMRHashCacheEntry.hpp"
#include "filefacts/QMRHashProvider.hpp"
#include "foundation/strings.hpp"
#include "platform/activity.hpp"
#include "reputation/QMRFileReputationRequest.hpp"
#include "settings/QMRNamespace.hpp"

using namespace qm::skyvault;

namespace {

const std::unordered_map<std::string_view, qm::ReputationLevel>& safetyVerdictMap() {
  static const std::unordered_map<std::string_view, qm::ReputationLevel> map{
      {SVKSkyvaultSafetyVerdictValueKnownClean, qm::reputation_level::trusted},
      {SVKSkyvaultSafetyVerdictValueUndetected, qm::reputation_level::undetected},
      {SVKSkyvaultSafetyVerdictValuePU, qm::reputation_level::suspicious},
      {SVKSkyvaultSafetyVerdictValueUnwanted, qm::reputation_level::unwanted},
      {SVKSkyvaultSafetyVerdictValueMalicious, qm::reputation_level::untrusted},
      {SVKSkyvaultSafetyVerdictValueUnknown, qm::reputation_level::unknown},
  };
  return map;
}

std::optional<std::string> verdictValue(const QMRBasaltReputationLookup::SkyvaultResponse& response) {
  return response ? std::optional(response->safetyVerdict.value) : std::nullopt;
}

std::uint8_t prevalenceOf(const QMRBasaltReputationLookup::SkyvaultResponse& response) {
  return response ? static_cast<std::uint8_t>(response->prevalence) : std::uint8_t{0};
}

std::string sha256Text(const QMRFileReputationRequest& request) {
  const auto hashes = request.hashes();
  const auto sha256 = hashes ? hashes->sha256() : std::nullopt;
  return QMRHashProvider::sha256StringForBuffer(sha256 ? sha256->bytes() : nullptr);
}

std::chrono::milliseconds millisecondsKeptTo32Bits(std::uint32_t seconds) {
  return std::chrono::milliseconds(static_cast<std::int32_t>(seconds * 1000U));
}

qm::Array descriptionsOf(const std::vector<SVKSkyvaultCategory>& categories) {
  qm::Array descriptions;
  for (const SVKSkyvaultCategory& category : categories) descriptions.emplace_back(category.description());
  return descriptions;
}

}  // namespace

std::shared_ptr<QMRBasaltReputationLookup> QMRBasaltReputationLookup::create() {
  SkyvaultClient client = qm::createSkyvaultServiceClient(QMRNamespace::namespacedWithId(kServiceName),
                                                          QMRNamespace::namespacedWithPath(kProgramPath));
  return client ? std::make_shared<QMRBasaltReputationLookup>(std::move(client)) : nullptr;
}

QMRBasaltReputationLookup::QMRBasaltReputationLookup(SkyvaultClient skyvaultClient)
    : QMRReputationLookup("QMRBasaltReputationLookup"),
      sageUploadQueue_(qm::Queue::concurrent("com.quillmarsh.sage-upload-queue",
                                             qm::QualityOfService::userInteractive, -1)),
      skyvaultClient_(std::move(skyvaultClient)) {
  setIsReady(true);
}

std::shared_ptr<QMRBasaltReputationLookup> QMRBasaltReputationLookup::self() {
  return std::static_pointer_cast<QMRBasaltReputationLookup>(shared_from_this());
}

// A client that completes with nothing at all has failed too.
qm::ErrorPtr QMRBasaltReputationLookup::outcomeError(const SkyvaultResponse& response,
                                                     const qm::ErrorPtr& error) const {
  if (error || response) return error;
  return lookupErrorWithCode(0, "The Skyvault client gave no answer");
}

void QMRBasaltReputationLookup::cloudScanForFile(const Request& request,
                                                 const qm::FileReputationCompletion& reply) {
  QM_LOG_DEBUG(log(), "cloudScan for path %@ hashes %@, team ID: %@, metadata: %@", request->path(),
               request->hashes(), request->teamID(), request->metadata());
  qvsScanForFile(request, true,
                 [self = self(), request, reply](const Result& result, const qm::ErrorPtr& error) {
                   self->handleMeritUpgradeForRequest(request, result, error, reply);
                 });
}

void QMRBasaltReputationLookup::qvsScanForFile(const Request& request, bool skipCloudScan,
                                               const qm::FileReputationCompletion& reply) {
  QM_LOG_DEBUG(log(), "L0 lookup for path %@ hashes %@ cloudScan? %d, team ID: %@, metadata: %@",
               request->path(), request->hashes(), skipCloudScan, request->teamID(), request->metadata());
  const auto completion = [self = self(), request, reply](const SkyvaultResponse& response,
                                                          const qm::ErrorPtr& error) {
    self->logBasaltResponseForRequest(*request, response, "L0");
    self->handleSkyvaultResponse(response, prevalenceOf(response), request, error, reply);
  };
  const SkyvaultClient client = skyvaultClient();
  if (!client) return completion(nullptr, nullptr);
  client->queryReputationForFileHash(sha256Text(*request), kLookupTimeout, completion);
}

void QMRBasaltReputationLookup::handleSkyvaultResponse(const SkyvaultResponse& response,
                                                       std::uint8_t prevalence, const Request& request,
                                                       const qm::ErrorPtr& error,
                                                       const qm::FileReputationCompletion& reply) const {
  if (const qm::ErrorPtr failure = outcomeError(response, error)) {
    QM_LOG_ERROR(log(), "Error performing Basalt file hash lookup: %{public}@", failure);
    if (!reply) return;
    reply(
        QMRFileReputationResult::resultFromRequest(*request, qm::reputation_level::error, std::nullopt, 0, 0),
        failure);
    return;
  }
  const qm::ReputationLevel mapped = mapBasaltResponse(*response);
  QM_LOG_DEBUG(log(), "Got Basalt response for %@, verdict %@ -> %lu (flags: %@)", request->path(),
               verdictValue(response), mapped, basaltResponseOptionsToString(response->options));
  const qm::ReputationLevel level = updateReputationLevel(mapped, prevalence);
  const Result result = QMRFileReputationResult::resultFromRequest(
      *request, level, response->safetyVerdict.infectionName, prevalence, response->ttl);
  if (reply) reply(result, nullptr);
}

void QMRBasaltReputationLookup::handleMeritUpgradeForRequest(const Request& request,
                                                             const Result& meritResponse,
                                                             const qm::ErrorPtr& error,
                                                             const qm::FileReputationCompletion& reply) {
  if (!meritResponse || meritResponse->reputationVerdict() != qm::reputation_level::unknown) {
    QM_LOG_DEBUG(log(), "Not doing L1 lookup for path %@ because L0 reported %@", request->path(),
                 descriptionForReputationLevel(meritResponse ? meritResponse->reputationVerdict()
                                                             : qm::reputation_level::untrusted));
    if (reply) reply(meritResponse, error);
    return;
  }
  QM_LOG_DEBUG(log(), "L0 unknown -> L1 lookup for path %@ hashes %@, team ID: %@, metadata: %@",
               request->path(), request->hashes(), request->teamID(), request->metadata());
  if (consolidator_.waitForPendingScansForRequest(*request, reply)) return;

  const auto completion = [self = self(), request, prevalence = meritResponse->prevalence(), reply](
                              const SkyvaultResponse& response, const qm::ErrorPtr& analysisError) {
    self->handleMetadataAnalysis(request, response, prevalence, analysisError, reply);
  };
  const SkyvaultClient client = skyvaultClient();
  if (!client) return completion(nullptr, nullptr);
  client->analyzeMetadata(request->metadata(), kLookupTimeout, completion);
}

void QMRBasaltReputationLookup::handleMetadataAnalysis(const Request& request,
                                                       const SkyvaultResponse& response,
                                                       std::uint8_t prevalence, const qm::ErrorPtr& error,
                                                       const qm::FileReputationCompletion& reply) {
  logBasaltResponseForRequest(*request, response, "L1");
  handleSkyvaultResponse(response, prevalence, request, error,
                         [this, &request, &reply](const Result& result, const qm::ErrorPtr& failure) {
                           handleConsolidationForRequest(request, result, failure);
                           if (reply) reply(result, failure);
                         });
  if (!response || (response->options & kOptionSageUploadRequested) == 0) return;
  qm::initiateActivity("SAGE upload requested - performing L2 sample upload",
                       [this, &request] { sageSampleUploadForRequest(request); });
}

void QMRBasaltReputationLookup::handleConsolidationForRequest(const Request& request, const Result& result,
                                                              const qm::ErrorPtr& error) {
  if (error) {
    QM_LOG_ERROR(log(), "Will propagate error to consolidated callbacks: %{public}@", error);
    consolidator_.respondToPendingCallbacksForRequest(*request, nullptr, error);
    return;
  }
  QM_LOG_DEBUG(log(), "Passing response to %@ for delivery to pending callbacks", consolidator_);
  consolidator_.respondToPendingCallbacksForRequest(*request, result, nullptr);
}

void QMRBasaltReputationLookup::sageSampleUploadForRequest(const Request& request) {
  const std::shared_ptr<qm::FileHandle> fileHandle = request->fileHandle();
  if (!fileHandle) {
    QM_LOG(log(), "Nil file handle, not doing SAGE upload");
    return;
  }
  QM_LOG_DEBUG(log(), "Doing background SAGE upload with metadata %@ and file handle %@", request->metadata(),
               fileHandle);
  sageUploadQueue_.async([self = self(), request, fileHandle] {
    const auto completion = [self, request, fileHandle](const SkyvaultResponse& response,
                                                        const qm::ErrorPtr& error) {
      self->handleSampleAnalysis(request, response, error);
    };
    const SkyvaultClient client = self->skyvaultClient();
    if (!client) return completion(nullptr, nullptr);
    client->analyzeFileHandle(fileHandle, request->metadata(), kUploadTimeout, completion);
  });
}

void QMRBasaltReputationLookup::handleSampleAnalysis(const Request& request, const SkyvaultResponse& response,
                                                     const qm::ErrorPtr& error) const {
  if (const qm::ErrorPtr failure = outcomeError(response, error)) {
    QM_LOG_ERROR(log(), "SAGE upload failed: %{public}@", failure);
    return;
  }
  logBasaltResponseForRequest(*request, response, "L2");
  if (const qm::FileReputationCompletion callback = delayedResponseCallback()) {
    QM_LOG_DEBUG(log(), "Sending delayed response to callback %@", callback);
    handleSkyvaultResponse(response, 0, request, nullptr, callback);
  }
  QM_LOG(log(), "SAGE upload of %@ completed, response=%@ verdict=%@", request->path(), response,
         verdictValue(response));
}

void QMRBasaltReputationLookup::reputationForURL(const std::string& url, std::uint32_t timeout,
                                                 const qm::URLReputationCompletion& callback) {
  const std::optional<qm::URL> validated = validateURL(url, callback);
  if (!validated) return;
  const SkyvaultClient client = skyvaultClient();
  QM_LOG_DEBUG(log(), "Performing URL lookup for %@ with timeout %d using %@", *validated,
               static_cast<std::int32_t>(timeout), client);
  const auto completion = [self = self(), validated = *validated, callback](const SkyvaultResponse& response,
                                                                            const qm::ErrorPtr& error) {
    self->handleBasaltURLLookupResponse(response, validated, error, callback);
  };
  if (!client) return completion(nullptr, nullptr);
  client->queryReputationForURL(*validated, std::nullopt, baseMetadata(), millisecondsKeptTo32Bits(timeout),
                                completion);
}

void QMRBasaltReputationLookup::handleBasaltURLLookupResponse(
    const SkyvaultResponse& response, const qm::URL& url, const qm::ErrorPtr& error,
    const qm::URLReputationCompletion& callback) const {
  if (handleCloudErrorResponse(outcomeError(response, error), url, callback)) return;
  QM_LOG_DEBUG(log(), "Reputation lookup for URL %@ succeeded with scan result %@ and categories \n%@", url,
               verdictValue(response), descriptionsOf(response->categories));
  const qm::Dictionary scores = formatBasaltResponseWithCategories(response->categories, *response);
  QM_LOG_DEBUG(log(), "Sending back the result for URL %@ with categories \n%@", url, scores);
  if (!callback) return;
  callback(std::make_shared<QMRURLReputationResult>(qm::Dictionary{{"cats", scores}}, response->ttl,
                                                    qm::ErrorPtr()));
}

qm::Dictionary QMRBasaltReputationLookup::formatBasaltResponseWithCategories(
    const std::vector<SVKSkyvaultCategory>& categories, const SVKSkyvaultResponse& response) const {
  qm::Dictionary scores = mapBasaltCategories(categories);
  scores.insert_or_assign("safe", safeScoreForReputationLevel(mapBasaltResponse(response)));
  return scores;
}

qm::Dictionary QMRBasaltReputationLookup::mapBasaltCategories(
    const std::vector<SVKSkyvaultCategory>& categories) {
  qm::Dictionary scores;
  for (const SVKSkyvaultCategory& category : categories) {
    const auto* mapped = qm::find<std::string>(kCategoryMapping(), category.name);
    scores.insert_or_assign(mapped != nullptr ? *mapped : category.name, category.value ? 100 : 0);
  }
  return scores;
}

std::int64_t QMRBasaltReputationLookup::safeScoreForReputationLevel(qm::ReputationLevel level) {
  static constexpr std::array<std::int64_t, 8> scores{-100, 0, 100, -80, -20, -20, 0, 0};
  // A level that is not in the table counts as safe, deliberately.
  return level < scores.size() ? scores[level] : 100;
}

qm::ReputationLevel QMRBasaltReputationLookup::mapBasaltResponse(const SVKSkyvaultResponse& response) const {
  const std::string& value = response.safetyVerdict.value;
  // "Undetected" after the analysis of a sample must not count as nearly clean.
  if ((response.options & kOptionSageSuccess) != 0 && value == SVKSkyvaultSafetyVerdictValueUndetected) {
    QM_LOG_DEBUG(log(), "SAGE returned %{public}@, mapping to unknown", value);
    return qm::reputation_level::unknown;
  }
  const auto found = safetyVerdictMap().find(value);
  if (found == safetyVerdictMap().end()) {
    QM_LOG_DEBUG(log(), "Basalt safety verdict %@ not found in map, falling back to unknown (%lu)", value,
                 qm::reputation_level::unknown);
    return qm::reputation_level::unknown;
  }
  QM_LOG_DEBUG(log(), "Basalt safety verdict %@ mapped to %lu (flags: %@)", value, found->second,
               basaltResponseOptionsToString(response.options));
  return found->second;
}

std::string QMRBasaltReputationLookup::basaltResponseOptionToString(std::uint64_t option) {
  switch (option) {
    case kOptionSageThrottled:
      return "SAGE throttled";
    case kOptionSageFailed:
      return "SAGE failed";
    case kOptionFailed:
      return "failed";
    case kOptionSageSuccess:
      return "SAGE success";
    case kOptionSageUploadRequested:
      return "SAGE upload requested";
    case kOptionSageUploaded:
      return "SAGE uploaded";
    case kOptionHipsEventsRequested:
      return "HIPS events requested";
    default:
      return "from server";
  }
}

std::string QMRBasaltReputationLookup::basaltResponseOptionsToString(std::uint64_t options) {
  // Without `failed`, deliberately.
  static constexpr std::array shown{
      kOptionFromServer,          kOptionSageThrottled, kOptionSageFailed,         kOptionSageSuccess,
      kOptionSageUploadRequested, kOptionSageUploaded,  kOptionHipsEventsRequested};
  std::vector<std::string> names;
  for (const std::uint64_t option : shown) addResponseOptionToArray(names, option, options);
  return qm::componentsJoinedByString(names, ",");
}

void QMRBasaltReputationLookup::addResponseOptionToArray(std::vector<std::string>& names,
                                                         std::uint64_t option, std::uint64_t flags) {
  if ((flags & option) == option) names.push_back(basaltResponseOptionToString(option));
}

void QMRBasaltReputationLookup::logBasaltResponseForRequest(const QMRFileReputationRequest& request,
                                                            const SkyvaultResponse& response,
                                                            const char* context) const {
  QM_LOG_DEBUG(log(), "[%{public}@] verdict for %@: %{public}@, response options: [%{public}@]", context,
               request.path(), verdictValue(response),
               basaltResponseOptionsToString(response ? response->options : 0));
}
