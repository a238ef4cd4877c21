// The base of every reputation provider: the factory that picks the backend, the flow of a file request, the
// metadata sent with every query, the prevalence rule and the helpers for URL results. One is made for each
// client connection.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "foundation/log.hpp"
#include "foundation/property.hpp"
#include "platform/url.hpp"
#include "reputation/QMRReputationProtocol.hpp"
#include "reputation/reputation_level.hpp"

class QMRHashCacheEntry;
class QMRSettingsClient;

// Made with std::make_shared only: a lookup that is under way holds its provider. A subclass overrides
// reputationForURL, qvsScanForFile and cloudScanForFile, and calls setIsReady when its backend can be used.
class QMRReputationLookup : public QMRReputationProtocol,
                            public std::enable_shared_from_this<QMRReputationLookup> {
 public:
  // The domain of the errors made here, whichever backend is in use.
  static constexpr const char* kErrorDomain = "com.quillmarsh.QMRWispReputationLookup";

  // A new provider, or null when its backend cannot be used here (logged). The settings client is for the
  // Wisp backend.
  static std::shared_ptr<QMRReputationLookup> reputationProviderWithBasaltEnabled(
      bool basaltEnabled, std::shared_ptr<QMRSettingsClient> settingsClient);
  static std::shared_ptr<QMRReputationLookup> basaltReputationProvider();
  static std::shared_ptr<QMRReputationLookup> wispReputationProviderWithSettingsClient(
      std::shared_ptr<QMRSettingsClient> settingsClient);

  // The name of the actual class: the log category and part of the description.
  explicit QMRReputationLookup(std::string className = "QMRReputationLookup");
  QMRReputationLookup(const QMRReputationLookup&) = delete;
  QMRReputationLookup& operator=(const QMRReputationLookup&) = delete;

  void reputationForFile(const std::shared_ptr<QMRFileReputationRequest>& request,
                         const qm::FileReputationCompletion& reply) override;

  // Abstract: the base throws qm::InternalInconsistencyException from all three.
  void reputationForURL(const std::string& url, std::uint32_t timeout,
                        const qm::URLReputationCompletion& callback) override;
  virtual void qvsScanForFile(const std::shared_ptr<QMRFileReputationRequest>& request, bool skipCloudScan,
                              const qm::FileReputationCompletion& reply);
  virtual void cloudScanForFile(const std::shared_ptr<QMRFileReputationRequest>& request,
                                const qm::FileReputationCompletion& reply);

  void addBaseMetadataValue(qm::Value value, const std::string& key) override;
  bool isReady() const override { return isReady_.get(); }
  bool useCloudScanForURLLookup() const override { return useCloudScanForURLLookup_.get(); }
  void setUseCloudScanForURLLookup(bool use) override { useCloudScanForURLLookup_.set(use); }
  PrevalenceThresholdCallback prevalenceThresholdCallback() const override {
    return prevalenceThresholdCallback_.get();
  }
  void setPrevalenceThresholdCallback(PrevalenceThresholdCallback callback) override {
    prevalenceThresholdCallback_.set(std::move(callback));
  }
  LookupEnabledCallback lookupEnabledCallback() const override { return lookupEnabledCallback_.get(); }
  void setLookupEnabledCallback(LookupEnabledCallback callback) override {
    lookupEnabledCallback_.set(std::move(callback));
  }
  std::shared_ptr<QMRHashProviderProtocol> hashProvider() const override { return hashProvider_.get(); }
  void setHashProvider(std::shared_ptr<QMRHashProviderProtocol> provider) override {
    hashProvider_.set(std::move(provider));
  }
  qm::FileReputationCompletion delayedResponseCallback() const override {
    return delayedResponseCallback_.get();
  }
  void setDelayedResponseCallback(qm::FileReputationCompletion callback) override {
    delayedResponseCallback_.set(std::move(callback));
  }

  // Nothing until the first value was added.
  std::optional<qm::Dictionary> baseMetadata() const { return baseMetadata_.get(); }
  void setBaseMetadata(std::optional<qm::Dictionary> metadata) { baseMetadata_.set(std::move(metadata)); }

  // <<CLASS: 0xADDRESS>: URL cloudScan: 0>
  std::string description() const override;

  // "untrusted", "unknown" ...; "spam" for any value above 7.
  static std::string descriptionForReputationLevel(qm::ReputationLevel level);

  // Cloud category name to product category name; names that are not in it stay as they are.
  static const qm::Dictionary& kCategoryMapping();
  // The categories of a failed URL lookup.
  static const qm::Dictionary& kUnknownRating();

  // The level to report: an unknown file whose prevalence reaches the threshold is trusted, everything else
  // stays.
  qm::ReputationLevel updateReputationLevel(qm::ReputationLevel level, std::uint8_t prevalence) const;

  // The metadata to send: the given entries, the base metadata over them, the anonymised path, the team
  // identifier unless it is empty, digests in hexadecimal, magic bytes in Base64.
  qm::Dictionary addFileContentMetadataForPath(const std::string& path,
                                               const std::shared_ptr<const QMRHashCacheEntry>& hashes,
                                               const std::optional<std::string>& teamID,
                                               qm::Dictionary metadata) const;

  // False when lookups are switched off; the reply, if any, then has had its answer (unknown).
  bool shouldContactReputationBackendForRequest(const std::shared_ptr<QMRFileReputationRequest>& request,
                                                const qm::FileReputationCompletion& reply) const;

  qm::ErrorPtr lookupErrorWithCode(std::int64_t code, const std::string& message) const;
  // False when there is no error. Otherwise the callback gets the unknown rating with the cloud's code and
  // description.
  bool handleCloudErrorResponse(const qm::ErrorPtr& error, const qm::URL& url,
                                const qm::URLReputationCompletion& callback) const;
  // Nothing when the text is empty or no URL; the callback then has had its error (code 0).
  std::optional<qm::URL> validateURL(const std::string& url,
                                     const qm::URLReputationCompletion& callback) const;

 protected:
  qm::Log& log() const { return log_; }
  // The end of a URL lookup that failed; the callback may be null.
  static void answerUnrated(const qm::ErrorPtr& error, const qm::URLReputationCompletion& callback);
  void setIsReady(bool ready) { isReady_.set(ready); }

 private:
  void addMissingHashes(QMRFileReputationRequest& request) const;

  const std::string className_;
  qm::Log& log_;
  qm::Property<bool> useCloudScanForURLLookup_;
  qm::Property<bool> isReady_;
  qm::Property<qm::FileReputationCompletion> delayedResponseCallback_;
  qm::Property<PrevalenceThresholdCallback> prevalenceThresholdCallback_;
  qm::Property<LookupEnabledCallback> lookupEnabledCallback_;
  qm::Property<std::shared_ptr<QMRHashProviderProtocol>> hashProvider_;
  qm::Property<std::optional<qm::Dictionary>> baseMetadata_;
};
