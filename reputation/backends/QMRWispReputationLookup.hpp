// The provider that asks the Wisp core daemon, the product's local scanning service: about a file by its
// SHA-1 (the Qvs scan), or with its content (the cloud scan); about a URL with either. It is usable while the
// system settings say that the Wisp service is configured, and it reports the service's errors back to the
// settings, where the product shows them.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/property.hpp"
#include "platform/queue.hpp"
#include "reputation/QMRReputationLookup.hpp"
#include "reputation/backends/QMRWispProtocol.hpp"
#include "settings/QMRSettingsClientProtocol.hpp"

// Replies are called on whatever queue the Wisp client answers on. A daemon that gives no answer within the
// time-out and a second is an error like one of its own. When a call fails on the connection (which breaks,
// or cannot be made, or what it carries cannot be coded), the error goes to the settings; the reply of a
// file's lookup is not called but released at once, with all that the lookup holds, and the callback of a
// URL's lookup gets an error.
class QMRWispReputationLookup final : public QMRReputationLookup {
 public:
  using Wisp = std::shared_ptr<QMRWispProtocol>;
  using SettingsClient = std::shared_ptr<QMRSettingsClientProtocol>;
  using Request = std::shared_ptr<QMRFileReputationRequest>;
  using QvsResponse = std::shared_ptr<const QMRWispQvsResponseObjC>;
  using CloudScanResponse = std::shared_ptr<const QMRWispCloudScanResponseObjC>;

  // The value of kWispConfigState in the system settings with which the service is usable.
  static constexpr std::int64_t kConfigured = 2;
  static constexpr std::uint32_t kFileTimeout = 5;  // seconds
  static constexpr std::chrono::seconds kDelayAfterFailure{10};
  // What a daemon may take beyond the time-out it was given.
  static constexpr std::chrono::seconds kGrace{1};
  // The code of the error of a URL lookup while the service is not usable.
  static constexpr std::int64_t kNotAvailable = 1;
  // The code of the error of a URL lookup whose call failed on the connection; none of the daemon's, which
  // are positive.
  static constexpr std::int64_t kConnectionLost = -1;

  // Where time comes from; a test has its own.
  struct Timing {
    qm::Block<std::chrono::steady_clock::time_point()> now;
    qm::Block<void(const qm::Queue& queue, std::chrono::nanoseconds delay, qm::Block<void()> work)> after;
    static Timing system();
  };

  // With a client of the daemon, which is connected to when it is first asked, or with the given one. Ready
  // once the first settings have come. Neither client may be null.
  static std::shared_ptr<QMRWispReputationLookup> create(SettingsClient settingsClient);
  static std::shared_ptr<QMRWispReputationLookup> create(Wisp wisp, SettingsClient settingsClient,
                                                         Timing timing = Timing::system());
  ~QMRWispReputationLookup();

  const Wisp& wisp() const { return wisp_; }
  const SettingsClient& settingsClient() const { return settingsClient_; }

  // What the settings say now; not kept.
  bool wispAvailable() const;
  void updateWispAvailabilityFromSettings(const qm::Dictionary& settings);
  void reportErrorToProduct(const qm::ErrorPtr& error) const;
  // False when the service is not usable; the reply, if any, then has had its answer (unknown).
  bool shouldUseWispForRequest(const Request& request, const qm::FileReputationCompletion& reply) const;

  void reputationForFile(const Request& request, const qm::FileReputationCompletion& reply) override;
  // Unless it is to be skipped, a cloud scan without a reply follows when the file is not known, and when the
  // scan failed. A failure is answered with level 6 (error), ttl 1 and the error, here and in a cloud scan.
  void qvsScanForFile(const Request& request, bool skipCloudScan,
                      const qm::FileReputationCompletion& reply) override;
  void cloudScanForFile(const Request& request, const qm::FileReputationCompletion& reply) override;

  // The categories of the result are { "cats": score dictionary }, its ttl is the daemon's, in seconds. A
  // failure ends in the unknown rating with an error: code 0 for what is no URL and for a daemon that gave no
  // answer, kNotAvailable, kConnectionLost, or the daemon's. The time-out, in seconds, is passed on as it is.
  void reputationForURL(const std::string& url, std::uint32_t timeout,
                        const qm::URLReputationCompletion& callback) override;
  // One answer of the daemon about a URL, which is an error or a response, becomes a result for the callback.
  // The first is false when there is no error.
  bool handleWispErrorResponse(const qm::ErrorPtr& error, const qm::URL& url,
                               const qm::URLReputationCompletion& callback) const;
  void handleWispCloudScanResponse(const CloudScanResponse& response, const qm::URL& url,
                                   const qm::ErrorPtr& error,
                                   const qm::URLReputationCompletion& callback) const;
  void handleWispQvsScanResponse(const QvsResponse& response, const qm::URL& url, const qm::ErrorPtr& error,
                                 const qm::URLReputationCompletion& callback) const;

  // 100 or 0 for each category, under its product name.
  static qm::Dictionary mapCategories(const qm::Dictionary& categories);
  // The same, and under "safe" the score of the result or verdict (-100 to 100), whatever the categories say.
  static qm::Dictionary formatWispResponseWithCategoriesAndScanResult(const qm::Dictionary& categories,
                                                                      std::uint64_t result);
  static qm::Dictionary formatWispResponseWithCategoriesAndSafetyVerdict(const qm::Dictionary& categories,
                                                                         std::uint64_t verdict);
  // "clean" for a result that is not in the table.
  static std::string descriptionForScanResult(std::uint64_t result);
  // Nothing for a verdict that is not in the table.
  static std::optional<std::string> descriptionForSafetyVerdict(std::uint64_t verdict);

 private:
  QMRWispReputationLookup(Wisp wisp, SettingsClient settingsClient, Timing timing);
  std::shared_ptr<QMRWispReputationLookup> self();
  void addObservers();
  void removeObservers();

  // A scan by the daemon. The completion is called once at most, with a response or an error: the daemon's
  // or, when that takes too long, one made here. When the client releases its callback, so is the completion.
  void qvsScan(const std::optional<qm::URL>& url, std::uint32_t timeout,
               QMRWispProtocol::QvsScanCallback completion);
  void cloudScan(const qm::URL& url, const qm::Dictionary& metadata, std::uint32_t timeout,
                 QMRWispProtocol::CloudScanCallback completion);
  template <class Response>
  using ScanCallback =
      qm::Block<void(const std::shared_ptr<const Response>& response, const qm::ErrorPtr& error)>;
  template <class Response>
  ScanCallback<Response> withDeadline(std::uint32_t timeout, ScanCallback<Response> completion);
  // A scan that is still waited for when its time-out and the grace are over fails.
  class PendingScan;
  template <class Response>
  class PendingCallback;
  void addDeadline(const std::weak_ptr<PendingScan>& scan, std::uint32_t timeout);
  void checkDeadlinesAfter(std::chrono::nanoseconds delay, std::uint32_t timeout);
  void checkDeadlines(std::uint32_t timeout);
  struct URLLookup;
  void reportOutcomeOfURLLookup(const qm::ErrorPtr& error) const;

  void finishQvsScan(const Request& request, bool skipCloudScan, const qm::FileReputationCompletion& reply,
                     std::chrono::nanoseconds elapsed, const QvsResponse& response,
                     const qm::ErrorPtr& error);
  void finishCloudScan(const Request& request, const qm::FileReputationCompletion& reply,
                       std::chrono::nanoseconds elapsed, const CloudScanResponse& response,
                       const qm::ErrorPtr& error) const;
  void answer(const QMRFileReputationRequest& request, qm::ReputationLevel level,
              const std::optional<std::string>& infectionName, std::uint8_t prevalence, std::uint64_t ttl,
              const qm::FileReputationCompletion& reply) const;
  void scheduleBackgroundCloudScan(const Request& request, std::chrono::nanoseconds delay);

  const qm::Queue backgroundCloudScanQueue_;
  const Timing timing_;
  const Wisp wisp_;
  const SettingsClient settingsClient_;
  qm::Property<QMRSettingsClientProtocol::SettingsUpdateCallback> settingsUpdateCallback_;

  struct Deadline {
    std::chrono::steady_clock::time_point time;
    std::weak_ptr<PendingScan> scan;
  };
  std::mutex deadlinesMutex_;
  // By the time-out, in seconds, and so in the order of time. Each of them has one timer, for its first.
  std::map<std::uint32_t, std::deque<Deadline>> deadlines_;
};
