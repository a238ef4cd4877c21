// The Wisp core daemon over real connections, asked by the product's own client: answers from the store and
// the rules, time-outs, bounds, and who may change what.
#include "companions/wisp_service.hpp"

#include "companions/wisp_error.hpp"
#include "filefacts/QMRHashProvider.hpp"
#include "reputation/backends/QMRWispClient.hpp"
#include "support/testing.hpp"
#include "tests/companions/samples.hpp"
#include "tests/companions/shipped_rules.hpp"

namespace {

using Qvs = QMRWispQvsResponseObjC;
using CloudScan = QMRWispCloudScanResponseObjC;

constexpr std::uint32_t kOwner = 4711;
constexpr std::uint32_t kPatient = 60;   // seconds
constexpr std::int64_t kFarAhead = 100;  // seconds
// All files have been as they are for long.
std::int64_t timeFarAhead() {
  return Date::now().nanosecondsSince1970 / 1'000'000'000 + kFarAhead;
}

template <class Response>
struct Answer {
  std::shared_ptr<const Response> response;
  ErrorPtr error;
};

std::int64_t codeOf(const ErrorPtr& error) {
  return error == nullptr ? 0 : error->domain() == kWispErrorDomain ? error->code() : -1;
}

class ServedWisp : public RecordedTest {
 protected:
  ServedWisp() {
    answering_.rules = shippedRules();
    answering_.now = timeFarAhead;
    serving_.peers.admission = [](const RemoteConnection&) { return true; };
    serving_.userOf = [this](const RemoteConnection&) { return user_.load(); };
    serving_.owner = kOwner;
  }
  ~ServedWisp() override { listener_->invalidate(); }

  void start() {
    WispService::create(std::make_shared<WispAnswers>(store_, answering_), serving_)->serve(listener_);
    client_ = connect(kOwner);
  }
  // With rules that take longer than anybody waits.
  void startSlow() {
    answering_.rules = SampleRules::compile({{"slow",
                                              "rule slow { meta: verdict = \"pu\" condition: for all i in "
                                              "(0..2000000000) : (i >= 0) and false }"}});
    start();
  }
  std::shared_ptr<QMRWispClient> connect(std::uint32_t user) {
    user_ = user;
    const auto client = std::make_shared<QMRWispClient>(
        listener_->endpoint(), [errors = errors_](const ErrorPtr& error) { errors->put(error); });
    client->getSettingValueSync(0, nullptr);  // it is admitted, and its user known
    return client;
  }
  std::unique_ptr<VerdictStore> openStore() const {
    return VerdictStore::open(store_, VerdictStore::Access::readWrite);
  }
  static StoredVerdict verdict(const char* value, const char* name = nullptr) {
    return {value,
            name == nullptr ? std::nullopt : std::optional<std::string>(name),
            77,
            88,
            kVerdictSourceManual,
            1};
  }

  static std::string addressOf(std::string_view content) {
    const SHA1Value hash = sha1(content.data(), content.size());
    return "data://" + QMRHashProvider::hexStringForBytes(hash.data(), hash.size());
  }
  Answer<Qvs> qvs(const std::string& url, std::uint32_t timeout = kPatient) const {
    Inbox<Answer<Qvs>> inbox;
    client_->qvsScan(URL::create(url), timeout, [&](const auto& response, const auto& error) {
      inbox.put({response, error});
    });
    return inbox.waitForOne();
  }
  using CloudScans = std::shared_ptr<Inbox<Answer<CloudScan>>>;
  static void cloudScan(const QMRWispClient& client, const URL& url, std::uint32_t timeout,
                        const CloudScans& answers) {
    const_cast<QMRWispClient&>(client).cloudScan(url, {}, timeout,
                                                 [answers](const auto& response, const auto& error) {
                                                   answers->put({response, error});
                                                 });
  }
  Answer<CloudScan> scan(const URL& url, std::uint32_t timeout = kPatient) const {
    const auto answers = std::make_shared<Inbox<Answer<CloudScan>>>();
    cloudScan(*client_, url, timeout, answers);
    return answers->waitForOne();
  }
  std::uint64_t resultOf(const std::string& path) const {
    const auto answer = scan(URL::fileURLWithPath(path));
    EXPECT_EQ(answer.error, nullptr) << answer.error->description();
    return answer.response == nullptr ? 99 : answer.response->result;
  }
  std::int64_t failureOf(const std::string& path) const {
    const auto answer = scan(URL::fileURLWithPath(path));
    EXPECT_EQ(answer.response, nullptr);
    return codeOf(answer.error);
  }

  const std::string store_ = folder.path("verdicts.sqlite");
  WispAnswersOptions answering_;
  WispService::Options serving_;
  std::atomic<std::uint32_t> user_ = kOwner;
  const std::shared_ptr<RemoteListener> listener_ = RemoteListener::anonymousListener();
  const std::shared_ptr<Inbox<ErrorPtr>> errors_ = std::make_shared<Inbox<ErrorPtr>>();
  std::shared_ptr<QMRWispClient> client_;
};

TEST_F(ServedWisp, AnswersAboutHashesAndURLsFromTheStore) {
  constexpr const char* kHash = "data://a9993e364706816aba3e25717850c26c9cd0d89d";  // of "abc"
  const SHA1Value hash = sha1("abc", 3);
  ASSERT_TRUE(openStore()->addAll({{hash, {verdict("malicious", "Test.Bad"), {}}}}));
  ASSERT_TRUE(
      openStore()->addURLs({{"bad.example", {verdict("unwanted"), {{"adult", true}, {"games", false}}}}}));
  start();
  const Dictionary categories{{"adult", Dictionary{{"value", true}}},
                              {"games", Dictionary{{"value", false}}}};
  const struct {
    std::string url;
    std::uint64_t verdict;
    std::uint64_t ttl;
    std::optional<std::string> name;
    std::optional<Dictionary> categories;
  } cases[] = {
      {kHash, Qvs::malicious, 88, "Test.Bad", {}},
      {"DATA://A9993E364706816ABA3E25717850C26C9CD0D89D", Qvs::malicious, 88, "Test.Bad", {}},
      {"data://0000000000000000000000000000000000000000", Qvs::unknown, 600, {}, {}},
      {"http://www.bad.example/x", Qvs::unwanted, 88, {}, categories},
      {"https://good.example/", Qvs::unknown, 600, {}, {}},
      {"mailto:bad.example", Qvs::unknown, 600, {}, {}},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.url);
    const auto response = qvs(expected.url).response;
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->safetyVerdict, expected.verdict);
    EXPECT_EQ(response->ttl, expected.ttl);
    EXPECT_EQ(response->prevalence, expected.verdict == Qvs::unknown ? 0 : 77);
    EXPECT_EQ(response->safetyFinal, expected.verdict != Qvs::unknown);
    EXPECT_EQ(response->detectionName, expected.name);
    EXPECT_EQ(response->categories, expected.categories);
  }
  const auto scanned = scan(*URL::create("http://bad.example/")).response;
  ASSERT_NE(scanned, nullptr);
  EXPECT_EQ(scanned->result, CloudScan::pua);
  EXPECT_EQ(scanned->categories, categories);

  std::filesystem::remove(store_ + "-wal");
  folder.write("verdicts.sqlite.new", "This is certainly not what a store looks like.");
  std::filesystem::rename(folder.path("verdicts.sqlite.new"), store_);
  const auto without = qvs(kHash).response;
  ASSERT_NE(without, nullptr);
  EXPECT_EQ(without->safetyVerdict, Qvs::unknown);
  EXPECT_EQ(without->ttl, 0U) << "nobody keeps that";
}

TEST_F(ServedWisp, AFileIsScannedAndTheOutcomeRemembered) {
  const std::string bad = folder.write("bad \xf0\x9f\x90\x9f%41", standardTestFile());
  const std::string script = folder.write("script", "#!/bin/sh\n");
  start();
  EXPECT_EQ(resultOf(bad), CloudScan::infected);
  EXPECT_EQ(resultOf(script), CloudScan::clean);
  EXPECT_EQ(resultOf(folder.write("empty", "")), CloudScan::clean);
  // Written down behind the answer: the next look-up by hash knows it.
  const std::string content = standardTestFile();
  EXPECT_TRUE(eventually([&] {
    const auto known = openStore()->find(sha1(content.data(), content.size()));
    return known && known->verdict == "malicious" && known->source == kVerdictSourceAnalysis;
  }));

  ASSERT_TRUE(openStore()->add({{hashOf("#!/bin/sh\n"), verdict("known_clean")}}));
  EXPECT_EQ(resultOf(script), CloudScan::whitelisted) << "what a person says counts at once";
  EXPECT_EQ(qvs(addressOf("#!/bin/sh\n")).response->safetyVerdict, Qvs::knownClean)
      << "both hashes are known";
  std::ofstream(script, std::ios::trunc) << standardTestFile();
  EXPECT_EQ(resultOf(script), CloudScan::infected) << "the file has changed";

  const std::string tool = folder.write("tool", "#!/bin/bash\n");
  const SHA1Value hash = sha1("#!/bin/bash\n", 12);
  EXPECT_EQ(resultOf(tool), CloudScan::clean);
  EXPECT_TRUE(eventually([&] { return openStore()->find(hash).has_value(); }));
  ASSERT_TRUE(openStore()->addAll({{hash, {verdict("malicious"), {}}}}));
  EXPECT_EQ(resultOf(tool), CloudScan::infected) << "not what an analysis found under the other hash";
}

TEST_F(ServedWisp, AFileThatIsAsItWasIsNotExaminedAgainUntilTheCacheIsCleared) {
  const FilePath file{folder.write("file", "#!/bin/sh\n")};
  std::uint32_t ttl = answering_.undetectedTTL;
  const auto isExamined = [&](WispAnswers& answers, const Block<void()>& meanwhile = nullptr) {
    const auto isWanted = [&] {
      if (meanwhile) meanwhile();
      return true;
    };
    const auto deadline = [] { return CallDeadlines::Clock::now() + kPatience; };
    std::optional<ScannedFile> analyzed;
    const auto response = answers.scan(file, {isWanted, deadline}, analyzed, nullptr);
    EXPECT_TRUE(response != nullptr && response->result == CloudScan::clean && response->ttl == ttl);
    EXPECT_TRUE(!analyzed || analyzed->verdict.ttl == answering_.undetectedTTL);
    return analyzed.has_value();
  };
  WispAnswers answers(store_, answering_);
  EXPECT_TRUE(isExamined(answers));
  EXPECT_FALSE(isExamined(answers));
  std::filesystem::permissions(file.path, std::filesystem::perms::owner_all);
  EXPECT_TRUE(isExamined(answers)) << "something about it has changed";
  EXPECT_FALSE(isExamined(answers));
  answers.clearCache();
  EXPECT_TRUE(isExamined(answers, [&] { answers.clearCache(); }));
  EXPECT_TRUE(isExamined(answers)) << "it was cleared while the file was scanned";
  EXPECT_FALSE(isExamined(answers));

  answering_.now = [] { return timeFarAhead() - kFarAhead - 60; };  // so long it is too young
  WispAnswers wary(store_, answering_);
  EXPECT_TRUE(isExamined(wary));
  EXPECT_TRUE(isExamined(wary)) << "so young a file may change without a trace";

  std::filesystem::remove(store_ + "-wal");
  std::filesystem::rename(folder.write("other", "This is certainly not what a store looks like."), store_);
  ttl = 0;
  EXPECT_FALSE(isExamined(answers)) << "it is known from before";
  answers.clearCache();
  EXPECT_TRUE(isExamined(answers));
  EXPECT_TRUE(isExamined(answers)) << "nobody keeps what the store may contradict";
}

TEST_F(ServedWisp, WhatFormerRulesFoundIsNoLongerAnsweredThoughNothingCanBeExamined) {
  const std::string content = "Dear Sir";
  const FilePath file{folder.write("file", content)};
  const SHA1Value hash = sha1(content.data(), content.size());
  StoredVerdict found = verdict("malicious", "False.Positive");
  found.source = kVerdictSourceAnalysis;
  ASSERT_TRUE(openStore()->addAll({{hash, {found, {}}}}));
  WispAnswers answers(store_, answering_);
  const auto scanned = [&] {
    std::optional<ScannedFile> analyzed;
    const auto deadline = [] { return CallDeadlines::Clock::now() + kPatience; };
    return answers.scan(file, {[] { return true; }, deadline}, analyzed, nullptr)->result;
  };
  EXPECT_EQ(answers.lookUp(hash)->safetyVerdict, Qvs::malicious);
  EXPECT_EQ(scanned(), CloudScan::infected);
  answers.setRules(nullptr, found.added);
  EXPECT_EQ(answers.lookUp(hash)->safetyVerdict, Qvs::unknown);
  EXPECT_EQ(answers.lookUp(hash)->detectionName, std::nullopt);
  EXPECT_EQ(answers.lookUp(hash)->ttl, answering_.unknownTTL);
  EXPECT_EQ(scanned(), CloudScan::clean);
}

TEST_F(ServedWisp, WhatCannotBeAnsweredIsRefusedWithAReason) {
  answering_.maximumFileSize = 100;
  start();
  const std::string fifo = folder.path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(failureOf(fifo), static_cast<std::int64_t>(WispError::unreadable));
  EXPECT_EQ(failureOf(folder.path("")), static_cast<std::int64_t>(WispError::unreadable));
  EXPECT_EQ(failureOf(folder.path("missing")), static_cast<std::int64_t>(WispError::unreadable));
  EXPECT_EQ(failureOf("/proc/self/status"), static_cast<std::int64_t>(WispError::unreadable));
  EXPECT_EQ(failureOf(folder.write("large", std::string(101, 'x'))),
            static_cast<std::int64_t>(WispError::tooLarge));
  const auto badRequest = static_cast<std::int64_t>(WispError::badRequest);
  for (const char* url : {"file://elsewhere/etc/passwd", "file:etc/passwd", "file:///etc/passwd%00.txt",
                          "file:///etc/passwd?x", "file://localhost", "data://00"})
    EXPECT_EQ(codeOf(scan(*URL::create(url)).error), badRequest) << url;
  for (const char* url : {"file:///etc/passwd", "data://00", "data:0000000000000000000000000000000000000000"})
    EXPECT_EQ(codeOf(qvs(url).error), badRequest) << url;
  EXPECT_EQ(codeOf(qvs("http://x.example/", 0).error), static_cast<std::int64_t>(WispError::timedOut));

  const auto connection = RemoteConnection::createWithListenerEndpoint(listener_->endpoint());
  connection->setRemoteObjectInterface(remoteInterface<QMRWispServiceProtocol>());
  connection->resume();
  const RemoteProxy proxy = connection->synchronousRemoteObjectProxyWithErrorHandler(nullptr);
  std::vector<std::int64_t> refusals;
  proxy.call<&QMRWispScanProtocol::fileScan>(
      Array{"/etc/passwd"}, std::uint64_t{7}, std::make_shared<const QMRWispFileScanParametersObjC>(), 5U,
      [&](const auto&, const ErrorPtr& error) { refusals.push_back(codeOf(error)); });
  const auto note = [&](const ErrorPtr& error) { refusals.push_back(codeOf(error)); };
  const auto path = URL::create("file:///update");
  proxy.call<&QMRWispConfigurationProtocol::notifyChannelUpdate>(std::uint64_t{1}, path, note);
  proxy.call<&QMRWispClientProtocol::notifyChannelUpdateSync>(std::uint64_t{1}, path, note);
  proxy.call<&QMRSubscriptionProtocol::subscribeToChangesWithProtocol>(
      "P", listener_->endpoint(), [&](bool success) { refusals.push_back(success ? 0 : 1); });
  EXPECT_EQ(refusals, (std::vector<std::int64_t>(4, static_cast<std::int64_t>(WispError::notOffered))));
}

TEST_F(ServedWisp, EveryCallIsAnsweredOnceInItsTimeHoweverMuchIsAskedFor) {
  serving_.scans.running = 1;
  serving_.scans.goingOn = 0;
  serving_.scansOfOneProcess = 3;
  startSlow();
  constexpr std::uint32_t kScanTime = 5;  // enough on a loaded machine for all that is asked meanwhile
  const std::shared_ptr<QMRWispClient> other = connect(kOwner);
  const auto answers = std::make_shared<Inbox<Answer<CloudScan>>>();
  for (int i = 0; i < 6; ++i) {
    const URL url = URL::fileURLWithPath(folder.write(std::to_string(i), "#!/bin/sh\n"));
    cloudScan(i % 2 == 0 ? *client_ : *other, url, kScanTime, answers);
  }
  const auto busy = static_cast<std::int64_t>(WispError::busy);
  for (const auto& answer : answers->waitFor(3))
    EXPECT_EQ(codeOf(answer.error), busy) << "the process's share";
  EXPECT_NE(qvs("http://x.example/").response, nullptr);
  EXPECT_EQ(answers->size(), 3U) << "look-ups are not held up";
  std::map<std::int64_t, int> codes;
  for (const auto& answer : answers->waitFor(6)) ++codes[codeOf(answer.error)];
  EXPECT_EQ(codes[static_cast<std::int64_t>(WispError::timedOut)], 3) << testing::PrintToString(codes);
  EXPECT_EQ(answers->size(), 6U);
}

TEST_F(ServedWisp, KeepsTheConfigurationAndSettingsThatRootAndTheOwnerSet) {
  start();
  const auto stranger = connect(kOwner + 1);
  Inbox<std::int64_t> codes;
  const auto note = [&](const ErrorPtr& error) { codes.put(codeOf(error)); };
  const auto next = [&] { return codes.take().value_or(-2); };
  const auto current = [&](const std::shared_ptr<QMRWispClient>& client) {
    Inbox<std::shared_ptr<const QMRWispConfigurationObjC>> inbox;
    client->getConfiguration([&](const auto& configuration) { inbox.put(configuration); });
    return inbox.waitForOne();
  };
  EXPECT_EQ(Value(current(stranger)->fields()), Value(QMRWispConfigurationObjC().fields()));
  auto configuration = std::make_shared<QMRWispConfigurationObjC>();
  configuration->porterNamespace = -7;
  configuration->porterUrl = URL::create("https://porter.example/?a=b#c");
  configuration->productName = "";
  client_->setConfiguration(configuration, note);
  EXPECT_EQ(next(), 0);
  const auto oversized = std::make_shared<QMRWispConfigurationObjC>();
  oversized->productName = std::string(WispConfiguration::kMaximumConfigurationSize, 'x');
  client_->setConfiguration(oversized, note);
  EXPECT_EQ(next(), static_cast<std::int64_t>(WispError::tooLarge));
  EXPECT_EQ(Value(current(stranger)->fields()), Value(configuration->fields()));

  const auto setting = [&](std::int64_t key) {
    std::pair<Value, std::int64_t> found;
    stranger->getSettingValueSync(key, [&](const Value& value, const ErrorPtr& error) {
      found = {value, codeOf(error)};
    });
    return found;
  };
  const Value values[] = {Dictionary{{"a", Dictionary{{"b", 1}}}}, "text", 0.5,
                          std::make_shared<const URLObject>(*URL::create("x:y")), Value()};
  for (const Value& value : values) {
    client_->setSettingValue(value, -1, note);
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(setting(-1), std::pair(value, std::int64_t{0}));
  }
  client_->setSettingValue(std::string(WispConfiguration::kMaximumSettingSize, 'x'), 1, note);
  EXPECT_EQ(next(), static_cast<std::int64_t>(WispError::tooLarge));
  for (std::size_t i = 0; i <= WispConfiguration::kMaximumSettings; ++i) {
    client_->setSettingValue(true, static_cast<std::int64_t>(i), note);
    EXPECT_EQ(next(),
              i < WispConfiguration::kMaximumSettings ? 0 : static_cast<std::int64_t>(WispError::tooMany));
  }
  stranger->setSettingValue(false, 0, note);
  stranger->setConfiguration(oversized, note);
  stranger->clearCache(note);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(next(), static_cast<std::int64_t>(WispError::notAllowed));
  EXPECT_EQ(setting(0).first, Value(true));
}

}  // namespace
