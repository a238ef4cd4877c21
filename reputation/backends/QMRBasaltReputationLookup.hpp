// The provider that asks the maker's cloud security service through the Skyvault client. About a file in up
// to three stages: a lookup of its SHA-256 (L0), an analysis of its metadata when that said unknown (L1),
// and, when the cloud asks for it, a background upload of the file (L2), whose verdict comes through the
// delayed-response callback. About a URL in one question.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/property.hpp"
#include "platform/queue.hpp"
#include "reputation/QMRReputationLookup.hpp"
#include "reputation/QMRResponseConsolidator.hpp"
#include "platform/SVKSkyvaultServiceClientProtocol.hpp"

// Replies are called on whatever queue the client completes on.
class QMRBasaltReputationLookup final : public QMRReputationLookup {
 public:
  using SkyvaultClient = std::shared_ptr<SVKSkyvaultServiceClientProtocol>;
  using SkyvaultResponse = std::shared_ptr<const SVKSkyvaultResponse>;
  using Request = std::shared_ptr<QMRFileReputationRequest>;
  using Result = std::shared_ptr<const QMRFileReputationResult>;

  static constexpr std::chrono::milliseconds kLookupTimeout{5000};
  static constexpr std::chrono::milliseconds kUploadTimeout{600000};

  // With a client for the Skyvault agent in the namespace; null when the Skyvault agent is not installed.
  static std::shared_ptr<QMRBasaltReputationLookup> create();
  // Ready at once.
  explicit QMRBasaltReputationLookup(SkyvaultClient skyvaultClient);

  // Without a client every lookup ends in an error.
  SkyvaultClient skyvaultClient() const { return skyvaultClient_.get(); }
  void setSkyvaultClient(SkyvaultClient client) { skyvaultClient_.set(std::move(client)); }

  // L0, then L1 when it is needed. Level 6 (error) with prevalence and ttl 0 when the cloud fails; the
  // client's error goes to the reply as it is.
  void cloudScanForFile(const Request& request, const qm::FileReputationCompletion& reply) override;
  // L0 alone, whatever skipCloudScan says.
  void qvsScanForFile(const Request& request, bool skipCloudScan,
                      const qm::FileReputationCompletion& reply) override;

  // The categories of the result are { "cats": score dictionary }, its ttl is the cloud's, in seconds. A URL
  // that is none, or a failure, ends in the unknown rating with an error (code 0, or the cloud's). The
  // time-out is the client's; it is read as a signed number of seconds, and its milliseconds are kept to 32
  // bits.
  void reputationForURL(const std::string& url, std::uint32_t timeout,
                        const qm::URLReputationCompletion& callback) override;

  // L1 for a file that L0 does not know; any other outcome of L0 goes to the reply. Only one L1 runs for a
  // file at a time: who comes later gets its outcome.
  void handleMeritUpgradeForRequest(const Request& request, const Result& meritResponse,
                                    const qm::ErrorPtr& error, const qm::FileReputationCompletion& reply);
  // L2. Keeps the request and its file handle until the upload ends. Never tried again.
  void sageSampleUploadForRequest(const Request& request);
  // One answer of the cloud becomes a result for the reply.
  void handleSkyvaultResponse(const SkyvaultResponse& response, std::uint8_t prevalence,
                              const Request& request, const qm::ErrorPtr& error,
                              const qm::FileReputationCompletion& reply) const;
  // The outcome of L1 for those who waited for it: the result, or the error alone.
  void handleConsolidationForRequest(const Request& request, const Result& result, const qm::ErrorPtr& error);

  // One answer of the cloud about a URL becomes a result for the callback.
  void handleBasaltURLLookupResponse(const SkyvaultResponse& response, const qm::URL& url,
                                     const qm::ErrorPtr& error,
                                     const qm::URLReputationCompletion& callback) const;
  // The score dictionary: what mapBasaltCategories gives, and under "safe" the score of the verdict, whatever
  // the categories say.
  qm::Dictionary formatBasaltResponseWithCategories(const std::vector<SVKSkyvaultCategory>& categories,
                                                    const SVKSkyvaultResponse& response) const;
  // 100 or 0 for each category, under its product name; the last one of a name counts.
  static qm::Dictionary mapBasaltCategories(const std::vector<SVKSkyvaultCategory>& categories);
  // The "safe" score: -100 (certainly not) to 100.
  static std::int64_t safeScoreForReputationLevel(qm::ReputationLevel level);

  qm::ReputationLevel mapBasaltResponse(const SVKSkyvaultResponse& response) const;

  // The display name of one response option flag; "from server" for any other value.
  static std::string basaltResponseOptionToString(std::uint64_t option);
  // The names of the set flags joined by ","; "failed" is never among them.
  static std::string basaltResponseOptionsToString(std::uint64_t options);
  // Appends the name when every bit of the option is set in the flags.
  static void addResponseOptionToArray(std::vector<std::string>& names, std::uint64_t option,
                                       std::uint64_t flags);

  // The response may be null.
  void logBasaltResponseForRequest(const QMRFileReputationRequest& request, const SkyvaultResponse& response,
                                   const char* context) const;

 private:
  std::shared_ptr<QMRBasaltReputationLookup> self();
  qm::ErrorPtr outcomeError(const SkyvaultResponse& response, const qm::ErrorPtr& error) const;
  void handleMetadataAnalysis(const Request& request, const SkyvaultResponse& response,
                              std::uint8_t prevalence, const qm::ErrorPtr& error,
                              const qm::FileReputationCompletion& reply);
  void handleSampleAnalysis(const Request& request, const SkyvaultResponse& response,
                            const qm::ErrorPtr& error) const;

  const qm::Queue sageUploadQueue_;
  QMRResponseConsolidator consolidator_;
  qm::Property<SkyvaultClient> skyvaultClient_;
};
