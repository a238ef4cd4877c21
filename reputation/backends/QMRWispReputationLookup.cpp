#include "reputation/backends/QMRWispReputationLookup.hpp"

#include <array>
#include <utility>
#include <vector>

#include "filefacts/QMRHashCacheEntry.hpp"
#include "filefacts/QMRHashProvider.hpp"
#include "reputation/QMRFileReputationRequest.hpp"
#include "reputation/backends/QMRWispClient.hpp"
#include "settings/settings_keys.hpp"

namespace level = qm::reputation_level;

namespace {

// What a code of the daemon's means here.
struct Meaning {
  const char* description;
  qm::ReputationLevel level;
  std::int64_t safe;
};

const Meaning& meaningOfScanResult(std::uint64_t result) {
  // A clean file is only not known to be bad, deliberately.
  static constexpr std::array<Meaning, 6> meanings{{{"clean", level::unknown, 0},
                                                    {"infected", level::untrusted, -100},
                                                    {"suspected", level::suspicious, -20},
                                                    {"pua", level::suspicious, -20},
                                                    {"spam", level::spam, -80},
                                                    {"whitelisted", level::trusted, 100}}};
  return result < meanings.size() ? meanings[result] : meanings[QMRWispCloudScanResponseObjC::clean];
}

const Meaning& meaningOfSafetyVerdict(std::uint64_t verdict) {
  static constexpr std::array<Meaning, 6> meanings{{{"known clean", level::trusted, 100},
                                                    {"undetected", level::unknown, 0},
                                                    {"PU", level::suspicious, -20},
                                                    {"unwanted", level::unwanted, -80},
                                                    {"malicious", level::untrusted, -100},
                                                    {"unknown", level::unknown, 0}}};
  // Trusted as a file and of no score as a URL, deliberately.
  static constexpr Meaning other{nullptr, level::trusted, 0};
  return verdict < meanings.size() ? meanings[verdict] : other;
}

bool isTrue(const qm::Value& value) {
  const auto* real = value.as<double>();
  return real != nullptr ? *real != 0 : value.integerValue() != 0;
}

double inSeconds(std::chrono::nanoseconds duration) {
  return std::chrono::duration<double>(duration).count();
}

bool isConfigured(const qm::Dictionary& settings) {
  const qm::Value* state = qm::find(settings, kWispConfigState);
  return state != nullptr && state->integerValue() == QMRWispReputationLookup::kConfigured;
}

qm::ErrorPtr noAnswerError() {
  return qm::makeError(QMRReputationLookup::kErrorDomain, 0,
                       {{qm::kLocalizedDescriptionKey, "The Wisp core daemon gave no answer"}});
}

// An answer that is as good as none until the next question.
void answerFailure(const QMRFileReputationRequest& request, const qm::ErrorPtr& error,
                   const qm::FileReputationCompletion& reply) {
  // A time to live of 1, not 0, so that it expires at once, deliberately.
  if (reply)
    reply(QMRFileReputationResult::resultFromRequest(request, level::error, std::nullopt, 0, 1), error);
}

void answerURL(const qm::Dictionary& scores, std::uint64_t ttl, const qm::URLReputationCompletion& callback) {
  if (!callback) return;
  callback(std::make_shared<QMRURLReputationResult>(qm::Dictionary{{"cats", scores}}, ttl, qm::ErrorPtr()));
}

}  // namespace

// A scan by the daemon, while its answer is waited for.
class QMRWispReputationLookup::PendingScan {
 public:
  virtual ~PendingScan() = default;
  // Nothing when it is answered.
  virtual void fail(const qm::ErrorPtr& error) = 0;
};

// With the callback, which is called once at most, and then let go of.
template <class Response>
class QMRWispReputationLookup::PendingCallback final : public PendingScan {
 public:
  explicit PendingCallback(ScanCallback<Response> callback) : callback_(std::move(callback)) {}

  void answer(const std::shared_ptr<const Response>& response, const qm::ErrorPtr& error) {
    if (const ScanCallback<Response> callback = callback_.exchange(nullptr)) callback(response, error);
  }
  void fail(const qm::ErrorPtr& error) override { answer(nullptr, error); }

 private:
  qm::Property<ScanCallback<Response>> callback_;
};

// --- Making and unmaking ---

QMRWispReputationLookup::Timing QMRWispReputationLookup::Timing::system() {
  return {.now = [] { return std::chrono::steady_clock::now(); },
          .after = [](const qm::Queue& queue, std::chrono::nanoseconds delay,
                      qm::Block<void()> work) { queue.after(delay, std::move(work)); }};
}

std::shared_ptr<QMRWispReputationLookup> QMRWispReputationLookup::create(SettingsClient settingsClient) {
  const auto client = std::make_shared<QMRWispClient>(nullptr);
  auto lookup = create(client, std::move(settingsClient));
  client->setErrorCallback([weak = std::weak_ptr(lookup)](const qm::ErrorPtr& error) {
    if (const auto self = weak.lock()) self->reportErrorToProduct(error);
  });
  return lookup;
}

std::shared_ptr<QMRWispReputationLookup> QMRWispReputationLookup::create(Wisp wisp,
                                                                         SettingsClient settingsClient,
                                                                         Timing timing) {
  const std::shared_ptr<QMRWispReputationLookup> lookup(
      new QMRWispReputationLookup(std::move(wisp), std::move(settingsClient), std::move(timing)));
  lookup->addObservers();
  lookup->settingsClient_->getSystemSettingsWithReply(
      [weak = std::weak_ptr(lookup)](const qm::Dictionary& settings, const qm::ErrorPtr& error) {
        const std::shared_ptr<QMRWispReputationLookup> self = weak.lock();
        if (!self) return;
        if (!error) return self->updateWispAvailabilityFromSettings(settings);
        QM_LOG_ERROR(self->log(), "Error fetching system settings: %{public}@", error);
      });
  return lookup;
}

// The quality of service of the queue is no class and so without effect, deliberately: the work is rare and
// short.
QMRWispReputationLookup::QMRWispReputationLookup(Wisp wisp, SettingsClient settingsClient, Timing timing)
    : QMRReputationLookup("QMRWispReputationLookup"),
      backgroundCloudScanQueue_(qm::Queue::serial("com.quillmarsh.background-cloudscan",
                                                  static_cast<qm::QualityOfService>(0xFFFF8000), -15)),
      timing_(std::move(timing)),
      wisp_(std::move(wisp)),
      settingsClient_(std::move(settingsClient)) {}

QMRWispReputationLookup::~QMRWispReputationLookup() {
  removeObservers();
}

std::shared_ptr<QMRWispReputationLookup> QMRWispReputationLookup::self() {
  return std::static_pointer_cast<QMRWispReputationLookup>(shared_from_this());
}

void QMRWispReputationLookup::addObservers() {
  settingsUpdateCallback_.set(
      [weak = std::weak_ptr(self())](const qm::Dictionary&, const qm::Dictionary& settings) {
        if (const auto self = weak.lock()) self->updateWispAvailabilityFromSettings(settings);
      });
  settingsClient_->addSettingsUpdateCallback(settingsUpdateCallback_.get());
}

void QMRWispReputationLookup::removeObservers() {
  settingsClient_->removeSettingsUpdateCallback(settingsUpdateCallback_.get());
}

// --- Availability and errors ---

bool QMRWispReputationLookup::wispAvailable() const {
  return isConfigured(*settingsClient_->systemSettings());
}

void QMRWispReputationLookup::updateWispAvailabilityFromSettings(const qm::Dictionary& settings) {
  setIsReady(true);
  QM_LOG_DEBUG(log(), "Settings update: Wisp config state = %{public}@ => wisp available = %{public}@",
               qm::find(settings, kWispConfigState), isConfigured(settings) ? "yes" : "no");
}

void QMRWispReputationLookup::reportErrorToProduct(const qm::ErrorPtr& error) const {
  QM_LOG_ERROR(log(), "Error from Wisp: %{public}@", error);
  settingsClient_->updateWispError(error);
}

bool QMRWispReputationLookup::shouldUseWispForRequest(const Request& request,
                                                      const qm::FileReputationCompletion& reply) const {
  const std::shared_ptr<const qm::Dictionary> settings = settingsClient_->systemSettings();
  if (isConfigured(*settings)) return true;
  QM_LOG_DEBUG(log(), "Wisp is not yet available, not performing cloudScan (config state - %@)",
               qm::find(*settings, kWispConfigState));
  if (reply) {
    reply(QMRFileReputationResult::resultFromRequest(*request, level::unknown, std::nullopt, 0, 0), nullptr);
  }
  return false;
}

// --- Calls to the daemon ---

template <class Response>
QMRWispReputationLookup::ScanCallback<Response> QMRWispReputationLookup::withDeadline(
    std::uint32_t timeout, ScanCallback<Response> completion) {
  const auto pending = std::make_shared<PendingCallback<Response>>(std::move(completion));
  addDeadline(pending, timeout);
  return [pending](const std::shared_ptr<const Response>& response, const qm::ErrorPtr& error) {
    pending->answer(response, error || response ? error : noAnswerError());
  };
}

void QMRWispReputationLookup::addDeadline(const std::weak_ptr<PendingScan>& scan, std::uint32_t timeout) {
  const std::chrono::nanoseconds patience = std::chrono::seconds(timeout) + kGrace;
  {
    const std::lock_guard lock(deadlinesMutex_);
    const auto [place, isNew] = deadlines_.try_emplace(timeout);
    std::deque<Deadline>& deadlines = place->second;
    while (!deadlines.empty() && deadlines.front().scan.expired()) deadlines.pop_front();
    deadlines.push_back({timing_.now() + patience, scan});
    if (!isNew) return;
  }
  checkDeadlinesAfter(patience, timeout);
}

void QMRWispReputationLookup::checkDeadlinesAfter(std::chrono::nanoseconds delay, std::uint32_t timeout) {
  timing_.after(qm::Queue::global(), delay, [weak = std::weak_ptr(self()), timeout] {
    if (const auto self = weak.lock()) self->checkDeadlines(timeout);
  });
}

void QMRWispReputationLookup::checkDeadlines(std::uint32_t timeout) {
  std::vector<std::shared_ptr<PendingScan>> late;
  std::optional<std::chrono::nanoseconds> rest;
  {
    const std::lock_guard lock(deadlinesMutex_);
    const auto now = timing_.now();
    std::deque<Deadline>& deadlines = deadlines_.at(timeout);
    for (; !deadlines.empty(); deadlines.pop_front()) {
      const Deadline& first = deadlines.front();
      if (first.time <= now)
        late.push_back(first.scan.lock());  // is called, or let go of, without the lock
      else if (!first.scan.expired())
        break;
    }
    if (deadlines.empty())
      deadlines_.erase(timeout);
    else
      rest = deadlines.front().time - now;
  }
  if (rest) checkDeadlinesAfter(*rest, timeout);
  for (const std::shared_ptr<PendingScan>& scan : late)
    if (scan) scan->fail(noAnswerError());
}

void QMRWispReputationLookup::qvsScan(const std::optional<qm::URL>& url, std::uint32_t timeout,
                                      QMRWispProtocol::QvsScanCallback completion) {
  wisp_->qvsScan(url, timeout, withDeadline(timeout, std::move(completion)));
}

void QMRWispReputationLookup::cloudScan(const qm::URL& url, const qm::Dictionary& metadata,
                                        std::uint32_t timeout,
                                        QMRWispProtocol::CloudScanCallback completion) {
  wisp_->cloudScan(url, metadata, timeout, withDeadline(timeout, std::move(completion)));
}

// --- Files ---

void QMRWispReputationLookup::reputationForFile(const Request& request,
                                                const qm::FileReputationCompletion& reply) {
  if (shouldUseWispForRequest(request, reply)) QMRReputationLookup::reputationForFile(request, reply);
}

void QMRWispReputationLookup::qvsScanForFile(const Request& request, bool skipCloudScan,
                                             const qm::FileReputationCompletion& reply) {
  const auto hashes = request->hashes();
  const auto sha1 = hashes ? hashes->sha1() : std::nullopt;
  const std::string hash = QMRHashProvider::sha1StringForBuffer(sha1 ? sha1->bytes() : nullptr);
  const std::optional<qm::URL> url = qm::URL::create("data://" + hash);
  const auto start = timing_.now();
  QM_LOG_DEBUG(log(), "Will do qvsScan of %@ (SHA1: %@)", url, hash);
  qvsScan(url, kFileTimeout,
          [self = self(), request, skipCloudScan, reply, start](const QvsResponse& response,
                                                                const qm::ErrorPtr& error) {
            self->finishQvsScan(request, skipCloudScan, reply, self->timing_.now() - start, response, error);
          });
}

void QMRWispReputationLookup::finishQvsScan(const Request& request, bool skipCloudScan,
                                            const qm::FileReputationCompletion& reply,
                                            std::chrono::nanoseconds elapsed, const QvsResponse& response,
                                            const qm::ErrorPtr& error) {
  static const QMRWispQvsResponseObjC nothing;
  const QMRWispQvsResponseObjC& its = response ? *response : nothing;
  QM_LOG_DEBUG(log(),
               "WP response: qvsScan result after %.2f seconds: %lu, ttl: %llu, infection name: %@, "
               "categories: %@, prevalence: %d, error: %@",
               inSeconds(elapsed), its.safetyVerdict, its.ttl, its.detectionName, its.categories,
               its.prevalence, error);
  if (error) {
    reportErrorToProduct(error);
    QM_LOG_ERROR(log(), "Error performing Wisp qvsScan call: %{public}@", error);
    answerFailure(*request, error, reply);
    if (!skipCloudScan) scheduleBackgroundCloudScan(request, kDelayAfterFailure);
    return;
  }
  settingsClient_->updateWispError(nullptr);
  const bool isUnknown = its.safetyVerdict == QMRWispQvsResponseObjC::unknown;
  if (isUnknown && skipCloudScan) {
    QM_LOG_INFO(log(), "QVS returned SafetyVerdictUnknown for %@. Will send the response back",
                request->path());
  } else if (isUnknown) {
    QM_LOG_INFO(log(), "QVS returned SafetyVerdictUnknown for %@, will perform background cloudScan",
                request->path());
  }
  answer(*request, meaningOfSafetyVerdict(its.safetyVerdict).level, its.detectionName, its.prevalence,
         its.ttl, reply);
  // A slow answer spaces the scan that follows out by as much, deliberately.
  if (isUnknown && !skipCloudScan) scheduleBackgroundCloudScan(request, elapsed);
}

// Its outcome reaches nobody who asked: it ends in the logs and the error state.
void QMRWispReputationLookup::scheduleBackgroundCloudScan(const Request& request,
                                                          std::chrono::nanoseconds delay) {
  QM_LOG_DEBUG(log(), "Performing background cloud scan after %.2f seconds", inSeconds(delay));
  timing_.after(backgroundCloudScanQueue_, delay, [weak = weak_from_this(), request] {
    if (const auto self = weak.lock()) self->cloudScanForFile(request, nullptr);
  });
}

void QMRWispReputationLookup::cloudScanForFile(const Request& request,
                                               const qm::FileReputationCompletion& reply) {
  const qm::URL url = qm::URL::fileURLWithPath(request->path());
  const auto start = timing_.now();
  const qm::Dictionary metadata = request->metadata();
  QM_LOG_DEBUG(log(), "Performing cloud scan of %@ with metadata %@", url, metadata);
  cloudScan(
      url, metadata, kFileTimeout,
      [self = self(), request, reply, start](const CloudScanResponse& response, const qm::ErrorPtr& error) {
        self->finishCloudScan(request, reply, self->timing_.now() - start, response, error);
      });
}

void QMRWispReputationLookup::finishCloudScan(const Request& request,
                                              const qm::FileReputationCompletion& reply,
                                              std::chrono::nanoseconds elapsed,
                                              const CloudScanResponse& response,
                                              const qm::ErrorPtr& error) const {
  static const QMRWispCloudScanResponseObjC nothing;
  const QMRWispCloudScanResponseObjC& its = response ? *response : nothing;
  // The semicolon is deliberate.
  QM_LOG_DEBUG(log(),
               "WP response: cloudScan result after %.2f seconds: %lu, ttl; %llu, infection name: %@, "
               "categories: %@, error: %@",
               inSeconds(elapsed), its.result, its.ttl, its.infectionName, its.categories, error);
  if (error) {
    QM_LOG_ERROR(log(), "Error performing Wisp cloudScan call: %{public}@", error);
    reportErrorToProduct(error);
    answerFailure(*request, error, reply);
    return;
  }
  settingsClient_->updateWispError(nullptr);
  const qm::ReputationLevel level = meaningOfScanResult(its.result).level;
  QM_LOG_INFO(log(), "Cloud scan of %@ returned verdict %zu infection name %{public}@ TTL %llu prevalence %d",
              request->path(), level, its.infectionName, its.ttl, its.prevalence);
  answer(*request, level, its.infectionName, its.prevalence, its.ttl, reply);
}

void QMRWispReputationLookup::answer(const QMRFileReputationRequest& request, qm::ReputationLevel level,
                                     const std::optional<std::string>& infectionName, std::uint8_t prevalence,
                                     std::uint64_t ttl, const qm::FileReputationCompletion& reply) const {
  level = updateReputationLevel(level, prevalence);
  if (!reply) return;
  reply(QMRFileReputationResult::resultFromRequest(request, level, infectionName, prevalence, ttl), nullptr);
}

// --- URLs ---

// What the client holds of a URL lookup: when it lets go of it, there will be no answer.
struct QMRWispReputationLookup::URLLookup {
  URLLookup(std::shared_ptr<const QMRWispReputationLookup> itsProvider, qm::URL itsURL,
            qm::URLReputationCompletion itsCallback)
      : provider(std::move(itsProvider)), url(std::move(itsURL)), callback(std::move(itsCallback)) {}
  URLLookup(const URLLookup&) = delete;
  URLLookup& operator=(const URLLookup&) = delete;
  ~URLLookup() {
    if (isAnswered) return;
    constexpr const char* text =
        "The call to the Wisp core daemon failed: it cannot be reached, has ended, does not admit this "
        "program, or the two do not understand each other";
    provider->handleWispErrorResponse(provider->lookupErrorWithCode(kConnectionLost, text), url, callback);
  }

  const std::shared_ptr<const QMRWispReputationLookup> provider;
  const qm::URL url;
  const qm::URLReputationCompletion callback;
  bool isAnswered = false;
};

void QMRWispReputationLookup::reputationForURL(const std::string& url, std::uint32_t timeout,
                                               const qm::URLReputationCompletion& callback) {
  const std::optional<qm::URL> validated = validateURL(url, callback);
  if (!validated) return;
  QM_LOG_DEBUG(log(), "Performing URL lookup for %@ with timeout %d using %@", *validated,
               static_cast<std::int32_t>(timeout), wisp_);
  if (!wispAvailable()) {
    QM_LOG_DEBUG(log(), "Wisp is not yet available, not performing reputation lookup");
    return answerUnrated(lookupErrorWithCode(kNotAvailable, "Wisp is not available"), callback);
  }
  const auto asked = std::make_shared<URLLookup>(self(), *validated, callback);
  if (useCloudScanForURLLookup()) {
    cloudScan(*validated, baseMetadata().value_or(qm::Dictionary()), timeout,
              [asked](const CloudScanResponse& response, const qm::ErrorPtr& error) {
                asked->isAnswered = true;
                asked->provider->reportOutcomeOfURLLookup(error);
                asked->provider->handleWispCloudScanResponse(response, asked->url, error, asked->callback);
              });
    return;
  }
  qvsScan(*validated, timeout, [asked](const QvsResponse& response, const qm::ErrorPtr& error) {
    asked->isAnswered = true;
    asked->provider->reportOutcomeOfURLLookup(error);
    asked->provider->handleWispQvsScanResponse(response, asked->url, error, asked->callback);
  });
}

void QMRWispReputationLookup::reportOutcomeOfURLLookup(const qm::ErrorPtr& error) const {
  if (error) return reportErrorToProduct(error);
  settingsClient_->updateWispError(nullptr);
}

bool QMRWispReputationLookup::handleWispErrorResponse(const qm::ErrorPtr& error, const qm::URL& url,
                                                      const qm::URLReputationCompletion& callback) const {
  return handleCloudErrorResponse(error, url, callback);
}

void QMRWispReputationLookup::handleWispCloudScanResponse(const CloudScanResponse& response,
                                                          const qm::URL& url, const qm::ErrorPtr& error,
                                                          const qm::URLReputationCompletion& callback) const {
  if (handleWispErrorResponse(error, url, callback)) return;
  QM_LOG_DEBUG(log(), "Reputation lookup for URL %@ succeeded with scan result %@ and categories \n%@", url,
               descriptionForScanResult(response->result), response->categories);
  const qm::Dictionary scores = formatWispResponseWithCategoriesAndScanResult(
      response->categories.value_or(qm::Dictionary()), response->result);
  QM_LOG_DEBUG(log(), "Received wisp cloud scan response with result %lu and categories %{public}@",
               response->result, scores);
  answerURL(scores, response->ttl, callback);
}

void QMRWispReputationLookup::handleWispQvsScanResponse(const QvsResponse& response, const qm::URL& url,
                                                        const qm::ErrorPtr& error,
                                                        const qm::URLReputationCompletion& callback) const {
  if (handleWispErrorResponse(error, url, callback)) return;
  QM_LOG_DEBUG(log(), "Reputation lookup for URL %@ succeeded with scan result %@ and categories \n%@", url,
               descriptionForSafetyVerdict(response->safetyVerdict), response->categories);
  const qm::Dictionary scores = formatWispResponseWithCategoriesAndSafetyVerdict(
      response->categories.value_or(qm::Dictionary()), response->safetyVerdict);
  QM_LOG_DEBUG(log(), "Received wisp qvs response with verdict %lu and categories %{public}@",
               response->safetyVerdict, scores);
  answerURL(scores, response->ttl, callback);
}

qm::Dictionary QMRWispReputationLookup::mapCategories(const qm::Dictionary& categories) {
  qm::Dictionary scores;
  for (const auto& [name, category] : categories) {
    const auto* mapped = qm::find<std::string>(kCategoryMapping(), name);
    const auto* entries = category.as<qm::Dictionary>();
    const qm::Value* value = entries == nullptr ? nullptr : qm::find(*entries, qm::wisp::kCategoryValueKey);
    scores.insert_or_assign(mapped == nullptr ? name : *mapped, value != nullptr && isTrue(*value) ? 100 : 0);
  }
  return scores;
}

qm::Dictionary QMRWispReputationLookup::formatWispResponseWithCategoriesAndScanResult(
    const qm::Dictionary& categories, std::uint64_t result) {
  qm::Dictionary scores = mapCategories(categories);
  scores.insert_or_assign("safe", meaningOfScanResult(result).safe);
  return scores;
}

qm::Dictionary QMRWispReputationLookup::formatWispResponseWithCategoriesAndSafetyVerdict(
    const qm::Dictionary& categories, std::uint64_t verdict) {
  qm::Dictionary scores = mapCategories(categories);
  scores.insert_or_assign("safe", meaningOfSafetyVerdict(verdict).safe);
  return scores;
}

std::string QMRWispReputationLookup::descriptionForScanResult(std::uint64_t result) {
  return meaningOfScanResult(result).description;
}

std::optional<std::string> QMRWispReputationLookup::descriptionForSafetyVerdict(std::uint64_t verdict) {
  const char* description = meaningOfSafetyVerdict(verdict).description;
  return description == nullptr ? std::nullopt : std::optional<std::string>(description);
}
