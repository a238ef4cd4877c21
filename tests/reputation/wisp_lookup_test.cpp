#include "reputation/backends/QMRWispReputationLookup.hpp"

#include "reputation/backends/QMRWispClient.hpp"
#include "reputation/reputation_support.hpp"
#include "settings/settings_keys.hpp"

namespace {

using namespace std::chrono_literals;
namespace level = qm::reputation_level;

// Stands in for the Wisp client: keeps every scan until the test answers it or lets go of it.
class WispSubstitute final : public QMRWispProtocol {
 public:
  struct Call {
    std::string url;
    std::uint32_t timeout = 0;
    Dictionary metadata;
    QvsScanCallback qvs;  // one of the two
    CloudScanCallback cloud;

    // Beside the verdict or result always the same.
    void answer(std::uint64_t code, const std::optional<Dictionary>& categories = {}) const {
      QMRWispQvsResponseObjC known;
      known.safetyVerdict = code, known.ttl = 60, known.prevalence = 9, known.detectionName = "Trojan.X";
      QMRWispCloudScanResponseObjC scanned;
      scanned.result = code, scanned.ttl = 120, scanned.prevalence = 200, scanned.infectionName = "Worm.Y";
      known.categories = scanned.categories = categories;
      if (qvs) return qvs(std::make_shared<const QMRWispQvsResponseObjC>(known), nullptr);
      cloud(std::make_shared<const QMRWispCloudScanResponseObjC>(scanned), nullptr);
    }
    void fail(const ErrorPtr& error) const { qvs ? qvs(nullptr, error) : cloud(nullptr, error); }
  };
  Inbox<Call> calls;

  void qvsScan(const std::optional<URL>& url, std::uint32_t timeout, QvsScanCallback callback) override {
    calls.put({url.value().absoluteString(), timeout, {}, std::move(callback), nullptr});
  }
  void cloudScan(const std::optional<URL>& url, const Dictionary& metadata, std::uint32_t timeout,
                 CloudScanCallback callback) override {
    calls.put({url.value().absoluteString(), timeout, metadata, nullptr, std::move(callback)});
  }
  std::string description() const override { return "<WispSubstitute>"; }

  // Not of the backend's.
  void fileScan(const Array&, std::uint64_t, const std::shared_ptr<const QMRWispFileScanParametersObjC>&,
                std::uint32_t, FileScanCallback) override {}
  void getConfiguration(ConfigurationCallback) override {}
  void setConfiguration(const std::shared_ptr<const QMRWispConfigurationObjC>&, ErrorCallback) override {}
  void clearCache(ErrorCallback) override {}
  void getSettingValue(std::int64_t, SettingValueResponse) override {}
  void setSettingValue(const Value&, std::int64_t, ErrorCallback) override {}
  void notifyChannelUpdate(std::uint64_t, const std::optional<URL>&, ErrorCallback) override {}
  void getSettingValueSync(std::int64_t, SettingValueResponse) override {}
  void notifyChannelUpdateSync(std::uint64_t, const std::optional<URL>&, ErrorCallback) override {}
};

class SettingsSubstitute final : public QMRSettingsClientProtocol {
 public:
  std::shared_ptr<const Dictionary> systemSettings() const override {
    return std::make_shared<const Dictionary>(settings.get());
  }
  void getSystemSettingsWithReply(SettingsReply reply) override { fetches.push_back(std::move(reply)); }
  void addSettingsUpdateCallback(SettingsUpdateCallback callback) override {
    const std::lock_guard lock(mutex_);
    observers.push_back(callback);
  }
  // A provider may also end on its connection's queue.
  void removeSettingsUpdateCallback(const SettingsUpdateCallback& callback) override {
    const std::lock_guard lock(mutex_);
    std::erase(observers, callback);
  }
  void updateWispError(const ErrorPtr& error) override { reports.put(error); }

  Property<Dictionary> settings;
  std::vector<SettingsReply> fetches;
  std::vector<SettingsUpdateCallback> observers;
  Inbox<ErrorPtr> reports;

 private:
  std::mutex mutex_;
};

struct Delayed {
  std::string queue;
  std::chrono::nanoseconds delay{0};
  Block<void()> work;
};

class WispLookupTest : public RecordedTest {
 protected:
  WispLookupTest() { settings->settings.set({{kWispConfigState, 2}}); }
  // A call that is not answered holds the lookup, and that the client.
  ~WispLookupTest() override {
    while (wisp->calls.size() > 0) wisp->calls.take();
  }

  QMRWispReputationLookup::Timing timing() {
    return {.now = [this] { return now; },
            .after =
                [this](const Queue& queue, std::chrono::nanoseconds delay, Block<void()> work) {
                  delayed.put({queue.label(), delay, std::move(work)});
                }};
  }
  // What was put off by so much, of the oldest first; it must be there.
  Delayed takeDelayed(std::chrono::nanoseconds delay) {
    for (;;) {
      std::optional<Delayed> next = delayed.take();
      if (!next || next->delay == delay) return next.value_or(Delayed{});
    }
  }
  // Lets the time pass in which the scans so far are to be answered.
  void passDeadline() {
    now += 6s;
    takeDelayed(6s).work();
  }
  void scan(bool skipCloudScan) { lookup->qvsScanForFile(makeRequest(), skipCloudScan, replies.block()); }
  void cloudScan() { lookup->cloudScanForFile(makeRequest(), replies.block()); }
  void rate(const char* url, std::uint32_t timeout = 0) {
    lookup->reputationForURL(url, timeout, [this](const auto& result) { ratings.put(result); });
  }
  WispSubstitute::Call nextCall() { return wisp->calls.take().value_or(WispSubstitute::Call{}); }
  Reply nextReply() { return replies.take().value_or(Reply{}); }

  std::chrono::steady_clock::time_point now;
  Inbox<Delayed> delayed;
  const std::shared_ptr<WispSubstitute> wisp = std::make_shared<WispSubstitute>();
  const std::shared_ptr<SettingsSubstitute> settings = std::make_shared<SettingsSubstitute>();
  std::shared_ptr<QMRWispReputationLookup> lookup = QMRWispReputationLookup::create(wisp, settings, timing());
  const ErrorPtr daemonError = makeError("daemon", 12, {{"k", "v"}});
  Replies replies;
  Inbox<std::shared_ptr<const QMRURLReputationResult>> ratings;
};

struct Meaning {
  std::uint64_t code;
  std::optional<std::string> description;
  ReputationLevel level;
  std::int64_t safe;
};
const std::vector<Meaning> scanResults{
    {0, "clean", 1, 0},  {1, "infected", 0, -100},   {2, "suspected", 4, -20}, {3, "pua", 4, -20},
    {4, "spam", 5, -80}, {5, "whitelisted", 2, 100}, {6, "clean", 1, 0},       {~0ULL, "clean", 1, 0}};
const std::vector<Meaning> safetyVerdicts{{0, "known clean", 2, 100}, {1, "undetected", 1, 0},
                                          {2, "PU", 4, -20},          {3, "unwanted", 3, -80},
                                          {4, "malicious", 0, -100},  {5, "unknown", 1, 0},
                                          {6, std::nullopt, 2, 0},    {~0ULL, std::nullopt, 2, 0}};

TEST_F(WispLookupTest, VerdictsAndResultsHaveTheirLevelsAndClearTheErrorState) {
  for (const bool isCloudScan : {false, true}) {
    for (const Meaning& its : isCloudScan ? scanResults : safetyVerdicts) {
      SCOPED_TRACE(its.code);
      const auto request = makeRequest({.path = "/a b", .metadata = {{"k", "v"}}});
      isCloudScan ? lookup->cloudScanForFile(request, replies.block())
                  : lookup->qvsScanForFile(request, true, replies.block());
      const auto call = nextCall();
      EXPECT_EQ(call.url, isCloudScan ? "file:///a%20b" : "data://1111111111111111111111111111111111111111");
      EXPECT_EQ(call.timeout, 5U);
      EXPECT_EQ(call.metadata, isCloudScan ? request->metadata() : Dictionary());
      call.answer(its.code);
      isCloudScan ? expectAnswer(nextReply(), its.level, 200, 120, "Worm.Y")
                  : expectAnswer(nextReply(), its.level, 9, 60, "Trojan.X");
      EXPECT_EQ(settings->reports.take(), ErrorPtr());
      EXPECT_EQ(isCloudScan ? QMRWispReputationLookup::descriptionForScanResult(its.code)
                            : QMRWispReputationLookup::descriptionForSafetyVerdict(its.code),
                its.description);
    }
  }
  EXPECT_EQ(wisp->calls.size(), 0U) << "no further scan was wanted";
}

TEST_F(WispLookupTest, AvailabilityIsReadAfreshForEveryRequest) {
  for (const Dictionary& notConfigured :
       {Dictionary(), Dictionary{{kWispConfigState, 1}}, Dictionary{{kWispConfigState, "2"}}}) {
    settings->settings.set(notConfigured);
    lookup->reputationForFile(makeRequest(), replies.block());
    expectAnswer(nextReply(), level::unknown, 0, 0);
  }
  lookup->reputationForFile(makeRequest(), nullptr);
  EXPECT_EQ(wisp->calls.size(), 0U);
  settings->settings.set({{kWispConfigState, 2U}});
  lookup->reputationForFile(makeRequest(), replies.block());
  lookup->reputationForFile(makeRequest({.isDownloadedFile = false}), replies.block());
  EXPECT_TRUE(nextCall().url.starts_with("file:"));
  EXPECT_TRUE(nextCall().url.starts_with("data:"));
}

TEST_F(WispLookupTest, ItIsReadyWithTheFirstSettingsAndObservedWeakly) {
  settings->fetches.at(0)({}, daemonError);
  EXPECT_FALSE(lookup->isReady());
  settings->observers.at(0)({}, {{kWispConfigState, 1}});
  EXPECT_TRUE(lookup->isReady());

  lookup = QMRWispReputationLookup::create(wisp, settings, timing());
  EXPECT_EQ(settings->observers.size(), 1U) << "the first one is gone";
  settings->fetches.at(1)({{kWispConfigState, 2}}, nullptr);
  EXPECT_TRUE(lookup->isReady());

  const auto observer = settings->observers.at(0);
  scan(false);
  nextCall().answer(5);
  const auto followUp = takeDelayed(0s);
  EXPECT_EQ(lookup.use_count(), 1) << "the scan lets go of it";
  lookup.reset();
  EXPECT_TRUE(settings->observers.empty());
  observer({}, {});
  settings->fetches.at(1)({}, nullptr);
  followUp.work();
  EXPECT_EQ(wisp->calls.size(), 0U);
}

TEST_F(WispLookupTest, AnUnknownFileIsScannedAgainAfterAsLongAsTheAnswerTook) {
  scan(true);
  nextCall().answer(5);
  expectAnswer(nextReply(), level::unknown, 9, 60, "Trojan.X");
  scan(false);
  const auto call = nextCall();
  now += 1250ms;
  call.answer(5);
  expectAnswer(nextReply(), level::unknown, 9, 60, "Trojan.X");
  const Delayed followUp = takeDelayed(1250ms);
  EXPECT_EQ(followUp.queue, "com.quillmarsh.background-cloudscan");
  followUp.work();
  nextCall().answer(1);
  EXPECT_EQ(replies.size(), 0U);
  EXPECT_EQ(settings->reports.size(), 3U);
}

TEST_F(WispLookupTest, AnUnknownFileIsTrustedFromItsThresholdOfPrevalence) {
  lookup->setPrevalenceThresholdCallback([] { return 10; });
  const struct {
    bool isCloudScan;
    std::uint64_t code;
    ReputationLevel level;
  } cases[] = {{false, 5, level::unknown}, {true, 0, level::trusted}, {true, 1, level::untrusted}};
  for (const auto& [isCloudScan, code, expected] : cases) {
    isCloudScan ? cloudScan() : scan(true);
    nextCall().answer(code);
    EXPECT_EQ(nextReply().result->reputationVerdict(), expected);
  }
}

TEST_F(WispLookupTest, AFailedScanIsAnErrorForAMomentAndIsReported) {
  for (const bool skipCloudScan : {true, false}) {
    scan(skipCloudScan);
    nextCall().fail(daemonError);
    expectAnswer(nextReply(), level::error, 0, 1, std::nullopt, daemonError);
    EXPECT_EQ(settings->reports.take(), daemonError);
    EXPECT_EQ(delayed.size(), skipCloudScan ? 1U : 2U) << "the deadline, and the further scan";
  }
  const Delayed followUp = takeDelayed(10s);
  EXPECT_EQ(followUp.queue, "com.quillmarsh.background-cloudscan");
  followUp.work();
  nextCall().fail(daemonError);
  EXPECT_EQ(settings->reports.take(), daemonError);
  EXPECT_EQ(replies.size(), 0U);
  cloudScan();
  nextCall().fail(daemonError);
  expectAnswer(nextReply(), level::error, 0, 1, std::nullopt, daemonError);
  EXPECT_EQ(settings->reports.take(), daemonError);
}

TEST_F(WispLookupTest, AnAnswerThatIsNoneOrTooLateIsAFailureAndTheOnlyAnswer) {
  const std::function<void(WispSubstitute::Call&)> ways[] = {
      [](auto& call) { call.fail(nullptr); },
      [this](auto&) { passDeadline(); },
  };
  for (const auto& way : ways) {
    for (const bool isCloudScan : {false, true}) {
      isCloudScan ? cloudScan() : scan(true);
      auto call = nextCall();
      way(call);
      const auto reply = nextReply();
      ASSERT_NE(reply.error, nullptr);
      expectAnswer(reply, level::error, 0, 1, std::nullopt, reply.error);
      EXPECT_EQ(reply.error->localizedDescription(), "The Wisp core daemon gave no answer");
      EXPECT_EQ(settings->reports.take(), reply.error);
      call.answer(0);
    }
  }
  EXPECT_EQ(replies.size(), 0U);
  EXPECT_EQ(settings->reports.size(), 0U);
}

TEST_F(WispLookupTest, OneTimerServesAllScansWithATimeOut) {
  const auto ask = [&](std::chrono::seconds later) {
    now += later;
    scan(true);
    rate("http://h/", 30);
  };
  ask(0s);
  const auto answered = nextCall();
  const auto first = nextCall();
  ask(1s);
  const auto hanging = nextCall();
  ask(1s);
  answered.answer(0);
  nextReply();
  first.answer(0);
  settings->reports.take(), settings->reports.take();
  const Delayed timer = takeDelayed(6s);
  takeDelayed(31s);
  EXPECT_EQ(delayed.size(), 0U);

  now += 4s;  // the end of the first scan, which has been answered
  timer.work();
  EXPECT_EQ(replies.size(), 0U);
  now += 1s;
  takeDelayed(1s).work();
  EXPECT_NE(nextReply().error, nullptr) << "of the one that hangs";
  EXPECT_EQ(replies.size(), 0U);
  now += 1s;
  takeDelayed(1s).work();
  EXPECT_NE(nextReply().error, nullptr);
  EXPECT_EQ(delayed.size(), 0U) << "nobody waits";
  scan(true);
  EXPECT_EQ(delayed.take()->delay, 6s);
  EXPECT_EQ(ratings.size(), 1U);
}

TEST_F(WispLookupTest, ALookupThatTheClientLetsGoOfIsLetGoOfUnanswered) {
  const auto reply = [this](const auto& request) {
    return
        [request, block = replies.block()](const auto& result, const auto& error) { block(result, error); };
  };
  const std::function<void(const std::shared_ptr<QMRFileReputationRequest>&)> lookups[] = {
      [&](const auto& request) { lookup->qvsScanForFile(request, false, reply(request)); },
      [&](const auto& request) { lookup->cloudScanForFile(request, reply(request)); },
  };
  for (const auto& start : lookups) {
    auto request = makeRequest();
    const std::weak_ptr watched = request;
    start(std::exchange(request, nullptr));
    EXPECT_FALSE(watched.expired());
    nextCall();
    EXPECT_TRUE(watched.expired()) << "whoever waits learns of it";
  }
  passDeadline();
  EXPECT_EQ(replies.size() + ratings.size() + settings->reports.size() + delayed.size(), 0U);
}

TEST_F(WispLookupTest, NothingOfAProviderIsLeftWhenItsLastLookupIsAnswered) {
  const std::weak_ptr<QMRWispReputationLookup> watched = lookup;
  scan(true);
  const auto call = nextCall();
  lookup.reset();
  EXPECT_FALSE(watched.expired());
  passDeadline();
  EXPECT_TRUE(watched.expired()) << "although the daemon still has the call";
  const Reply reply = nextReply();
  expectAnswer(reply, level::error, 0, 1, std::nullopt, reply.error);
}

TEST_F(WispLookupTest, OneAnswerAndTheDeadlineMayComeAtOnce) {
  for (int i = 0; i < 100; ++i) {
    scan(true);
    const auto call = nextCall();
    now += 6s;
    const auto deadline = std::async(std::launch::async, takeDelayed(6s).work);
    call.answer(0);
    deadline.wait();
    nextReply();
    EXPECT_EQ(replies.size(), 0U);
  }
}

// With a real connection to the substitute.
class WispConnectionTest : public WispLookupTest {
 protected:
  WispConnectionTest() {
    // It may still run when the test has ended.
    listener->setDelegate([accepted = accepted, exported = std::weak_ptr<QMRWispProtocol>(wisp)](
                              const auto&, const auto& connection) {
      connection->setExport(remoteExport<QMRWispProtocol>(exported));
      accepted->put(connection);
      connection->resume();
      return true;
    });
    listener->resume();
  }
  // The provider goes with its last lookup.
  void expectLetGoOf(const std::function<void()>& breakConnection) {
    const std::weak_ptr provider = lookup;
    auto held = std::make_shared<int>();
    const std::weak_ptr watched = held;
    lookup->qvsScanForFile(makeRequest(), false, [held, this](const auto&...) { replies.put({}); });
    held.reset();
    breakConnection();
    const ErrorPtr error = settings->reports.take().value_or(nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), kCocoaErrorDomain);
    EXPECT_TRUE(recorder.has(LogLevel::error, "Error from Wisp: " + error->description()));
    EXPECT_TRUE(eventually([&] { return watched.expired(); }));
    lookup.reset();
    EXPECT_TRUE(eventually([&] { return provider.expired(); }));
    EXPECT_EQ(replies.size() + settings->reports.size(), 0U);
  }

  const std::shared_ptr<Inbox<std::shared_ptr<RemoteConnection>>> accepted =
      std::make_shared<Inbox<std::shared_ptr<RemoteConnection>>>();
  const std::shared_ptr<RemoteListener> listener = RemoteListener::anonymousListener();
};

TEST_F(WispConnectionTest, ADaemonThatCannotBeReachedIsReportedAndItsLookupLetGoOf) {
  lookup = QMRWispReputationLookup::create(settings);
  EXPECT_NE(dynamic_cast<QMRWispClient*>(lookup->wisp().get()), nullptr);
  expectLetGoOf([] {});
}

TEST_F(WispConnectionTest, ADaemonThatGoesOrDropsACallIsReportedAndItsLookupLetGoOf) {
  const std::function<void()> ways[] = {
      [this] {
        const auto call = nextCall();
        accepted->take().value()->invalidate();
        lookup.reset();
      },
      [this] { nextCall(); },
  };
  for (const auto& way : ways) {
    const auto client = std::make_shared<QMRWispClient>(listener->endpoint(), nullptr);
    lookup = QMRWispReputationLookup::create(client, settings, timing());
    client->setErrorCallback([weak = std::weak_ptr(lookup)](const ErrorPtr& error) {
      if (const auto provider = weak.lock()) provider->reportErrorToProduct(error);
    });
    expectLetGoOf(way);
  }
}

TEST_F(WispLookupTest, URLsAreRatedByTheirCategoriesAndVerdict) {
  const Dictionary yes{{"value", true}};
  const Dictionary categories{{"banking_login", yes},
                              {"banking_safe", yes},
                              {"financial", Dictionary{{"value", 0}}},
                              {"half", Dictionary{{"value", 0.5}}},
                              {"spam", Dictionary{{"other", true}}},
                              {"text", "value"}};
  Dictionary scores{{"kvy_banking", 100}, {"banking", 0}, {"half", 100}, {"spam", 0}, {"text", 0}};
  lookup->addBaseMetadataValue("local_file", "context");
  for (const bool isCloudScan : {false, true}) {
    lookup->setUseCloudScanForURLLookup(isCloudScan);
    for (const Meaning& its : isCloudScan ? scanResults : safetyVerdicts) {
      SCOPED_TRACE(its.code);
      rate("http://h/p", 30);
      const auto call = nextCall();
      EXPECT_EQ(call.url, "http://h/p");
      EXPECT_EQ(call.timeout, 30U);
      EXPECT_EQ(call.metadata, isCloudScan ? *lookup->baseMetadata() : Dictionary());
      call.answer(its.code, categories);
      const auto rating = ratings.take().value();
      EXPECT_EQ(rating->error(), nullptr);
      EXPECT_EQ(rating->ttl(), isCloudScan ? 120U : 60U);
      scores.insert_or_assign("safe", its.safe);
      EXPECT_EQ(rating->categories(), (Dictionary{{"cats", scores}}));
      EXPECT_EQ(settings->reports.take(), ErrorPtr());
    }
  }
}

TEST_F(WispLookupTest, AURLThatIsNotRatedGetsTheUnknownRatingAndTheReason) {
  const auto expectFailed = [this](std::int64_t code, const std::string& text) {
    expectUnrated(*ratings.take().value(), "com.quillmarsh.QMRWispReputationLookup", code, text);
  };
  rate("http://h/a b");
  expectFailed(0, "Invalid URL passed");
  settings->settings.set({});
  rate("http://h/");
  expectFailed(1, "Wisp is not available");
  EXPECT_EQ(wisp->calls.size() + settings->reports.size(), 0U);
  settings->settings.set({{kWispConfigState, 2}});
  const char* const text =
      "The call to the Wisp core daemon failed: it cannot be reached, has ended, does not admit this "
      "program, "
      "or the two do not understand each other";
  const std::string lost = lookup->lookupErrorWithCode(-1, text)->description();
  for (const bool isCloudScan : {false, true}) {
    lookup->setUseCloudScanForURLLookup(isCloudScan);
    rate("http://h/");
    nextCall().fail(daemonError);
    expectFailed(12, daemonError->description());
    EXPECT_EQ(settings->reports.take(), daemonError);
    rate("http://h/");
    nextCall();  // let go of
    expectFailed(-1, lost);
    EXPECT_TRUE(recorder.has(LogLevel::error,
                             "Error occurred when performing reputation lookup for URL http://h/: " + lost));
  }
  EXPECT_EQ(ratings.size() + settings->reports.size(), 0U);
}

TEST_F(WispLookupTest, EachStepIsLogged) {
  const std::string hash(40, '1');
  const std::string path = makeRequest()->path();
  const std::string failed = daemonError->description();
  const Dictionary categories{{"spam", Dictionary{{"value", true}}}};
  const LogLevel debug = LogLevel::debug, info = LogLevel::info, error = LogLevel::error;
  const std::string ready = "Settings update: Wisp config state = ";
  const std::string qvs = "Will do qvsScan of data://" + hash + " (SHA1: " + hash + ")";
  const std::string qvsResult = "WP response: qvsScan result after ";
  const std::string cloud = "Performing cloud scan of file://" + path + " with metadata {\n}";
  const std::string cloudResult = "WP response: cloudScan result after 0.00 seconds: ";
  const std::string noThreshold = "Prevalence threshold is not configured. Not performing prevalence check";
  const std::string url = "Performing URL lookup for http://h/ with timeout 30 using <WispSubstitute>";
  const struct {
    std::function<void()> step;
    std::vector<std::pair<LogLevel, std::string>> lines;
  } cases[] = {
      {[&] { settings->fetches.at(0)({}, daemonError); },
       {{error, "Error fetching system settings: " + failed}}},
      {[&] {
         settings->fetches.at(0)({{kWispConfigState, 2}}, nullptr);
       },
       {{debug, ready + "2 => wisp available = yes"}}},
      {[&] {
         settings->observers.at(0)({}, {{kWispConfigState, 1}});
       },
       {{debug, ready + "1 => wisp available = no"}}},
      {[&] { settings->observers.at(0)({}, {}); }, {{debug, ready + "(null) => wisp available = no"}}},
      {[&] {
         scan(false);
         now += 1250ms;
         nextCall().answer(5, categories);
       },
       {{debug, qvs},
        {debug, qvsResult + "1.25 seconds: 5, ttl: 60, infection name: Trojan.X, categories: " +
                    description(categories) + ", prevalence: 9, error: (null)"},
        {info, "QVS returned SafetyVerdictUnknown for " + path + ", will perform background cloudScan"},
        {debug, noThreshold},
        {debug, "Performing background cloud scan after 1.25 seconds"}}},
      {[&] { scan(true), nextCall().answer(5); },
       {{debug, qvs},
        {debug, qvsResult + "0.00 seconds: 5, ttl: 60, infection name: Trojan.X, categories: (null), "
                            "prevalence: 9, error: (null)"},
        {info, "QVS returned SafetyVerdictUnknown for " + path + ". Will send the response back"},
        {debug, noThreshold}}},
      {[&] { scan(false), nextCall().fail(daemonError); },
       {{debug, qvs},
        {debug, qvsResult +
                    "0.00 seconds: 0, ttl: 0, infection name: (null), categories: (null), "
                    "prevalence: 0, error: " +
                    failed},
        {error, "Error from Wisp: " + failed},
        {error, "Error performing Wisp qvsScan call: " + failed},
        {debug, "Performing background cloud scan after 10.00 seconds"}}},
      {[&] { cloudScan(), nextCall().answer(1, categories); },
       {{debug, cloud},
        {debug, cloudResult + "1, ttl; 120, infection name: Worm.Y, categories: " + description(categories) +
                    ", error: (null)"},
        {info, "Cloud scan of " + path + " returned verdict 0 infection name Worm.Y TTL 120 prevalence 200"},
        {debug, noThreshold}}},
      {[&] { cloudScan(), nextCall().fail(daemonError); },
       {{debug, cloud},
        {debug, cloudResult + "0, ttl; 0, infection name: (null), categories: (null), error: " + failed},
        {error, "Error performing Wisp cloudScan call: " + failed},
        {error, "Error from Wisp: " + failed}}},
      {[&] { rate("http://h/", 30), nextCall().answer(4, categories); },
       {{debug, url},
        {debug, "Reputation lookup for URL http://h/ succeeded with scan result malicious and categories \n" +
                    description(categories)},
        {debug, "Received wisp qvs response with verdict 4 and categories " +
                    description(Dictionary{{"safe", -100}, {"spam", 100}})}}},
      {[&] {
         lookup->setUseCloudScanForURLLookup(true);
         rate("http://h/", 30);
         nextCall().answer(4);
       },
       {{debug, url},
        {debug,
         "Reputation lookup for URL http://h/ succeeded with scan result spam and categories \n(null)"},
        {debug, "Received wisp cloud scan response with result 4 and categories " +
                    description(Dictionary{{"safe", -80}})}}},
      {[&] { rate("http://h/", 30), nextCall().fail(daemonError); },
       {{debug, url},
        {error, "Error from Wisp: " + failed},
        {error, "Error occurred when performing reputation lookup for URL http://h/: " + failed}}},
      {[&] {
         settings->settings.set({{kWispConfigState, 1}});
         rate("http://h/", 30);
       },
       {{debug, url}, {debug, "Wisp is not yet available, not performing reputation lookup"}}},
      {[&] { lookup->reputationForFile(makeRequest(), nullptr); },
       {{debug, "Wisp is not yet available, not performing cloudScan (config state - 1)"}}},
  };
  for (const auto& [step, expected] : cases) {
    const std::size_t before = recorder.lines().size();
    step();
    const std::vector<LogLine> lines = recorder.lines();
    ASSERT_EQ(lines.size() - before, expected.size()) << expected.front().second;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(lines[before + i].category, "QMRWispReputationLookup");
      EXPECT_EQ(name(lines[before + i].level), name(expected[i].first)) << expected[i].second;
      EXPECT_EQ(lines[before + i].message, expected[i].second);
    }
  }
}

}  // namespace
