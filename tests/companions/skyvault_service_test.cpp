// The agent's answers, directly and as its service gives them to the real client over the transport.
#include "companions/skyvault_service.hpp"

#include <algorithm>
#include <filesystem>

#include "filefacts/QMRHashProvider.hpp"
#include "foundation/strings.hpp"
#include "platform/file_handle.hpp"
#include "platform/linux/SVKSkyvaultServiceClient.hpp"
#include "support/reputation_peer.hpp"
#include "tests/companions/completions.hpp"
#include "tests/companions/samples.hpp"
#include "tests/companions/shipped_rules.hpp"

namespace {

using namespace skyvault;

constexpr std::chrono::milliseconds kLong = kPatience;
constexpr std::uint64_t kExamined = kOptionFromServer | kOptionSageSuccess | kOptionSageUploaded;
constexpr std::uint64_t kNotExamined = kOptionFromServer | kOptionSageFailed | kOptionSageUploaded;
constexpr std::uint64_t kWanted = kOptionFromServer | kOptionSageUploadRequested;
std::int64_t theTime = 1700000000;

Dictionary metadataOf(const std::string& content) {
  const SHA256Value hash = hashOf(content);
  const auto* start = reinterpret_cast<const std::uint8_t*>(content.data());
  return {{"sha256", QMRHashProvider::hexStringForBytes(hash.data(), hash.size())},
          {"file_size", std::uint64_t{content.size()}},
          {"magic_bytes", base64(start, std::min<std::size_t>(content.size(), 16))}};
}

class SkyvaultAgent : public testing::Test {
 protected:
  SkyvaultAgent() {
    options_.rules = shippedRules();
    options_.now = [] { return theTime; };
  }
  ~SkyvaultAgent() override { listener_.cancel(); }
  // The only rule of the service holds an analysis up for the scan limit, which is enough on a loaded machine
  // for all that is asked meanwhile.
  void start(SkyvaultService::Limits limits) {
    options_.rules = SampleRules::compile({{"slow",
                                            "rule slow { meta: verdict = \"pu\" condition: for all i in "
                                            "(0..2000000000) : (i >= 0) and false }"}});
    options_.scanLimit = std::chrono::seconds(5);
    const auto answers = std::make_shared<SkyvaultAnswers>(store_, options_);
    SkyvaultService::create(
        answers, [](const XPCConnection&) { return true; }, limits)
        ->serve(listener_, nullptr);
  }
  std::shared_ptr<SVKSkyvaultServiceClient> makeClient() const {
    return std::make_shared<SVKSkyvaultServiceClient>(
        [endpoint = listener_.endpoint()] { return XPCConnection::createClient(endpoint); });
  }
  // A new file each time: the last one may just be examined.
  std::shared_ptr<FileHandle> sample(const std::string& content) const {
    std::filesystem::remove(folder_.path("sample"));
    return FileHandle::fileHandleForReadingAtPath(folder_.write("sample", content));
  }
  std::string analyze(SkyvaultAnswers& answers, const std::string& content, std::uint64_t options,
                      bool mayBeKept = true) const {
    const auto response = answers.analyzeSample(sample(content)->fileDescriptor(), nullptr);
    EXPECT_EQ(response ? response->options : 0, options);
    EXPECT_TRUE(!response || options == kNotExamined || (response->ttl != 0) == mayBeKept);
    return response ? response->safetyVerdict.value : "";
  }

  ScratchFolder folder_;
  const std::string store_ = folder_.path("verdicts.sqlite");
  SkyvaultAnswersOptions options_;
  const XPCConnection listener_ = XPCConnection::createAnonymousListener();
};

TEST_F(SkyvaultAgent, AsksForSamplesOfUnknownFilesThatMayBeDangerous) {
  const std::string script = "#!/bin/sh\n";
  Dictionary large = metadataOf(script), noSize = large, noHash = large, negative = large;
  large["file_size"] = options_.maximumSampleSize + 1;
  noSize.erase("file_size");
  noHash.erase("sha256");
  negative["file_size"] = -1;
  SkyvaultAnswers answers(store_, options_);
  const std::string elf = "\177ELF", machO = "\xcf\xfa\xed\xfe", document = "%PDF-1.7", zip = "PK\x03\x04";
  for (const Dictionary& metadata : {metadataOf(script), metadataOf(elf), metadataOf(machO),
                                     metadataOf("MZ\x90"), metadataOf(zip), metadataOf(document), noHash})
    EXPECT_EQ(answers.analyzeMetadata(metadata, true).options, kWanted) << Value(metadata).description();
  for (const Dictionary& metadata : {metadataOf("Dear Sir"), metadataOf(" #!/bin/sh"), metadataOf(""), large,
                                     noSize, negative, Dictionary{}})
    EXPECT_EQ(answers.analyzeMetadata(metadata, true).options, kOptionFromServer)
        << Value(metadata).description();
}

TEST_F(SkyvaultAgent, RemembersWhatItFoundUntilItIsTooOldNeverAgainstAPersonAndWhileTheStoreIsSound) {
  const std::string script = "#!/bin/sh\necho new\n";
  SkyvaultAnswers answers(store_, options_);
  EXPECT_EQ(analyze(answers, standardTestFile(), kExamined), "malicious");
  EXPECT_EQ(analyze(answers, script, kExamined), "undetected");
  EXPECT_EQ(answers.lookUp(hashOf(script)).options, kOptionFromServer | kOptionSageSuccess) << "no all-clear";
  theTime += options_.undetectedTTL - 1;
  EXPECT_EQ(answers.analyzeMetadata(metadataOf(script), true).safetyVerdict.value, "undetected");
  theTime += 1;
  EXPECT_EQ(answers.analyzeMetadata(metadataOf(script), true).options, kWanted);
  theTime += 1;
  EXPECT_EQ(analyze(answers, script, kExamined), "undetected");
  EXPECT_EQ(answers.analyzeMetadata(metadataOf(script), true).options,
            kOptionFromServer | kOptionSageSuccess);
  answers.setRules(options_.rules, theTime);
  EXPECT_EQ(answers.analyzeMetadata(metadataOf(script), true).options, kWanted) << "the rules are newer";
  ASSERT_TRUE(VerdictStore::open(store_, VerdictStore::Access::readWrite)
                  ->add({{hashOf(standardTestFile()), {"known_clean", {}, 1, 60, kVerdictSourceManual, 1}}}));
  EXPECT_EQ(analyze(answers, standardTestFile(), kOptionFromServer | kOptionSageUploaded), "known_clean");

  SkyvaultAnswers without(folder_.write("other", "This is certainly not what a store looks like."), options_);
  EXPECT_EQ(without.lookUp(hashOf("x")).options, kOptionFromServer | kOptionFailed);
  EXPECT_EQ(analyze(without, standardTestFile(), kExamined, false), "malicious") << "without a usable store";
  {
    std::vector<VerdictStore::Entry> entries;
    for (int i = 0; i < 2000; ++i)
      entries.push_back({hashOf(std::to_string(i)), {"pu", {}, 1, 60, kVerdictSourceManual, 1}});
    ASSERT_TRUE(VerdictStore::open(folder_.path("hurt"), VerdictStore::Access::readWrite)->add(entries));
  }
  std::filesystem::resize_file(folder_.path("hurt"), 4096 * 5);  // most of it is gone
  const std::string hurt = contentOf(folder_.path("hurt"));
  SkyvaultAnswers damaged(folder_.path("hurt"), options_);
  EXPECT_EQ(damaged.lookUp(hashOf("1")).options, kOptionFromServer | kOptionFailed);
  EXPECT_EQ(analyze(damaged, standardTestFile(), kExamined, false), "malicious") << "with a damaged store";
  EXPECT_EQ(contentOf(folder_.path("hurt")), hurt) << "nothing is overwritten";
  std::filesystem::remove(folder_.path("other"));
  EXPECT_EQ(without.lookUp(hashOf("x")).options, kOptionFromServer) << "it comes back";
}

TEST_F(SkyvaultAgent, WhatFormerRulesFoundIsUnknownUntilTheFileIsExaminedAgain) {
  const std::string mistaken = "rule mistaken { meta: verdict = \"malicious\" condition: true }";
  const std::string right = "rule right { meta: verdict = \"pu\" strings: $a = \"evil\" condition: $a }";
  const std::string script = "#!/bin/sh\n", text = "Dear Sir", evil = "#!/bin/sh\nevil\n", listed = "listed";
  options_.rules = SampleRules::compile({{"a.yar", mistaken}, {"b.yar", right}});
  SkyvaultAnswers answers(store_, options_);
  for (const std::string& content : {script, text, evil}) {
    EXPECT_EQ(analyze(answers, content, kExamined), "malicious");
    EXPECT_EQ(answers.lookUp(hashOf(content)).safetyVerdict.value, "malicious");
  }
  ASSERT_TRUE(VerdictStore::open(store_, VerdictStore::Access::readWrite)
                  ->add({{hashOf(listed), {"malicious", {}, 1, 60, kVerdictSourceImport, 1}}}));
  theTime += 1;
  answers.setRules(SampleRules::compile({{"b.yar", right}}), theTime);
  theTime += 1;

  const SHA1Value hash = sha1(script.data(), script.size());
  Dictionary bySHA1 = metadataOf(script);
  bySHA1.erase("sha256");
  bySHA1["sha1"] = QMRHashProvider::hexStringForBytes(hash.data(), hash.size());
  for (const Dictionary& metadata : {metadataOf(script), metadataOf(text), metadataOf(evil), bySHA1}) {
    const SVKSkyvaultResponse asked = answers.analyzeMetadata(metadata, true);
    EXPECT_EQ(asked.safetyVerdict.value, "unknown") << Value(metadata).description();
    EXPECT_EQ(asked.safetyVerdict.infectionName, std::nullopt);
    EXPECT_EQ(asked.options, kWanted) << "whatever kind of file it is";
    const SVKSkyvaultResponse busy = answers.analyzeMetadata(metadata, false);
    EXPECT_EQ(busy.options, kOptionFromServer | kOptionSageThrottled);
    EXPECT_EQ(busy.ttl, 0U);
  }
  const struct {
    std::string content;
    const char* examined;
  } cases[] = {{script, "undetected"}, {text, "undetected"}, {evil, "pu"}};
  for (const auto& expected : cases) {
    const SVKSkyvaultResponse now = answers.lookUp(hashOf(expected.content));
    EXPECT_EQ(now.safetyVerdict.value, "unknown") << expected.content;
    EXPECT_EQ(now.options, kOptionFromServer) << expected.content;
    EXPECT_EQ(now.ttl, options_.unknownTTL) << expected.content;
    EXPECT_EQ(analyze(answers, expected.content, kExamined), expected.examined);
    EXPECT_EQ(answers.lookUp(hashOf(expected.content)).safetyVerdict.value, expected.examined);
  }
  EXPECT_EQ(answers.lookUp(hashOf(listed)).safetyVerdict.value, "malicious") << "no rule said so";

  answers.setRules(SampleRules::compile({}), theTime);
  EXPECT_EQ(answers.analyzeMetadata(metadataOf(evil), true).options, kOptionFromServer);
  EXPECT_EQ(answers.lookUp(hashOf(evil)).safetyVerdict.value, "unknown") << "no rule says so any more";
}

TEST_F(SkyvaultAgent, AnswersAboutAURLFromItsRecordItsHostsOrTheDomainsAbove) {
  const auto store = VerdictStore::open(store_, VerdictStore::Access::readWrite);
  const auto record = [](const char* verdict, std::vector<SVKSkyvaultCategory> categories) {
    return StoredURLVerdict{{verdict, {}, 0, 77, kVerdictSourceManual, 1}, std::move(categories)};
  };
  ASSERT_TRUE(store->addURLs({{"bad.example", record("malicious", {{"adult", true}, {"games", false}})},
                              {"good.bad.example", record("known_clean", {})},
                              {"http://bad.example/ok", record("pu", {})}}));
  start({});
  const auto client = makeClient();
  using Filter = std::optional<std::vector<std::string>>;
  const auto ask = [&](const char* url, const Filter& filter = std::nullopt) {
    Completions completions;
    client->queryReputationForURL(*URL::create(url), filter, Dictionary{{"context", "browser"}}, kLong,
                                  completions.make());
    return completions->waitForOne();
  };
  const struct {
    const char* url;
    Filter filter;
    const char* verdict;
    std::uint64_t ttl;
    std::vector<SVKSkyvaultCategory> categories;
  } cases[] = {
      {"http://BAD.example/ok#here", {}, "pu", 77, {}},
      {"https://bad.example/ok", {}, "malicious", 77, {{"adult", true}, {"games", false}}},
      {"http://a.b.bad.example/", Filter({"games", "news"}), "malicious", 77, {{"games", false}}},
      {"http://bad.example/", Filter(std::in_place), "malicious", 77, {}},
      {"http://x.good.bad.example/", {}, "known_clean", 77, {}},
      {"http://notbad.example/", {}, "unknown", 600, {}},
      {"mailto:bad.example", {}, "unknown", 600, {}},
  };
  for (const auto& expected : cases) {
    const auto response = ask(expected.url, expected.filter).response;
    ASSERT_NE(response, nullptr) << expected.url;
    EXPECT_EQ(response->safetyVerdict.value, expected.verdict) << expected.url;
    EXPECT_EQ(response->ttl, expected.ttl) << expected.url;
    EXPECT_EQ(response->options, kOptionFromServer) << expected.url;
    EXPECT_EQ(response->categories, expected.categories) << expected.url;
  }
  EXPECT_EQ(ask("").code(), ErrorCode::invalidRequest);
  const std::string noStore = folder_.write("other", "This is certainly not what a store looks like.");
  EXPECT_EQ(SkyvaultAnswers(noStore, options_).lookUpURL("http://bad.example/", {}).options,
            kOptionFromServer | kOptionFailed);
}

TEST_F(SkyvaultAgent, WhatCannotBeReadWholeIsNeverTakenForExamined) {
  options_.maximumSampleSize = 1 << 20;
  SkyvaultAnswers answers(store_, options_);
  EXPECT_EQ(analyze(answers, std::string((1 << 20) + 1, 'x'), kNotExamined), "unknown") << "too large";
  const auto file = sample(std::string(1 << 20, 'x'));
  std::atomic<bool> done = false;
  std::thread writer([&] {
    for (int i = 0; !done; ++i)
      EXPECT_EQ(truncate(folder_.path("sample").c_str(), i % 2 == 0 ? 0 : 1 << 20), 0);
  });
  for (int i = 0; i < 100; ++i) {
    const auto response = answers.analyzeSample(file->fileDescriptor(), nullptr);
    ASSERT_TRUE(response);
    EXPECT_NE(response->options & (kOptionSageSuccess | kOptionSageFailed), 0u);
  }
  done = true;
  writer.join();
}

TEST_F(SkyvaultAgent, WhatItDoesNotUnderstandIsAnErrorAndNotTheEnd) {
  start({});
  const ReputationPeer raw(listener_.endpoint());
  XPCDictionary message = XPCDictionary::create();
  const auto expect = [&](ErrorCode expected) {
    EXPECT_EQ(static_cast<ErrorCode>(raw.ask(message).getInt64(kErrorCodeKey)), expected);
  };
  expect(ErrorCode::notSupported);
  message.setString(kMetadataKey, "text");
  for (const char* request : {kRequestMetadata, kRequestSample, kRequestHash, kRequestURL}) {
    message.setString(kRequestKey, request);
    expect(ErrorCode::invalidRequest);
    message.setString(kURLKey, "http://host.example/");  // for the last one, whose metadata is no dictionary
  }
  message.setValue(kMetadataKey, {});
  message.setString(kCategoriesWantedKey, "adult");
  expect(ErrorCode::invalidRequest);
  message.setString(kRequestKey, kRequestHash);
  raw.tell(message);  // ignored
  message.setString(kSHA256Key, "nonsense");
  expect(ErrorCode::invalidRequest);
}

TEST_F(SkyvaultAgent, SamplesPastTheBoundAreTurnedAwayAndLookUpsGoOn) {
  start({.runningAnalyses = 1, .waitingAnalyses = 0});
  const auto client = makeClient();
  Completions slow, tooMany, lookUp, metadata;
  client->analyzeFileHandle(sample("first"), {}, kLong, slow.make());
  client->analyzeFileHandle(sample("first"), {}, kLong, tooMany.make());
  EXPECT_EQ(tooMany->waitForOne().response->options, kOptionFromServer | kOptionSageThrottled);
  client->analyzeMetadata(metadataOf("#!/bin/sh"), kLong, metadata.make());
  EXPECT_EQ(metadata->waitForOne().response->options, kOptionFromServer | kOptionSageThrottled);
  client->queryReputationForFileHash(std::string(64, 'a'), kLong, lookUp.make());
  EXPECT_NE(lookUp->waitForOne().response, nullptr);
  EXPECT_EQ(slow->size(), 0u);
  EXPECT_EQ(slow->waitForOne().response->options, kNotExamined) << "a scan out of time is no all-clear";
}

TEST_F(SkyvaultAgent, AProcessWithItsShareInHandIsAskedForNoFurtherSample) {
  start({.runningAnalyses = 1, .waitingAnalyses = 8, .analysesOfOneProcess = 2});
  const auto client = makeClient();
  Completions samples, roomLeft, noneLeft;
  for (const Completions* metadata : {&roomLeft, &noneLeft}) {
    client->analyzeFileHandle(sample("sample"), {}, kLong, samples.make());
    client->analyzeMetadata(metadataOf("#!/bin/sh"), kLong, metadata->make());
  }
  EXPECT_EQ(roomLeft->waitForOne().response->options, kWanted);
  EXPECT_EQ(noneLeft->waitForOne().response->options, kOptionFromServer | kOptionSageThrottled);
}

TEST_F(SkyvaultAgent, AClientThatVanishesLeavesNoDescriptorBehind) {
  start({.runningAnalyses = 1, .waitingAnalyses = 64});
  const auto client = makeClient();
  Completions warm, lost, last;
  client->queryReputationForFileHash(std::string(64, 'a'), kLong, warm.make());
  warm->waitForOne();
  const std::size_t before = openDescriptors();
  auto vanishing = makeClient();
  for (int i = 0; i < 20; ++i) vanishing->analyzeFileHandle(sample("sample"), {}, kLong, lost.make());
  // Requests of one connection are taken in order: with this answer all samples are there.
  vanishing->queryReputationForFileHash(std::string(64, 'a'), kLong, last.make());
  EXPECT_NE(last->waitForOne().response, nullptr);
  EXPECT_GT(openDescriptors(), before + 15);
  vanishing.reset();
  // Beside those that were examined by then.
  const auto isLost = [](const Answer& answer) { return answer.code() == ErrorCode::connectionLost; };
  EXPECT_GE(std::ranges::count_if(lost->waitFor(20), isLost), 15);
  // Samples that wait are dropped: examining them all would take a hundred seconds.
  EXPECT_TRUE(eventually([before] { return openDescriptors() <= before; }));
}

}  // namespace
