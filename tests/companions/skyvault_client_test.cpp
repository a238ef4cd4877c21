// The client against an agent in this process that does what the test says.

#include "platform/file_handle.hpp"
#include "platform/file_io.hpp"
#include "platform/linux/SVKSkyvaultServiceClient.hpp"
#include "support/scripted_service.hpp"
#include "tests/companions/completions.hpp"

namespace {

using namespace skyvault;
using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kLong = kPatience;

XPCDictionary soundAnswer(const XPCDictionary& request) {
  XPCDictionary answer = request.createReply();
  answer.setString(kVerdictKey, "unwanted");
  answer.setUInt64(kOptionsKey, 33);
  answer.setUInt64(kTTLKey, 77);
  answer.setInt64(kPrevalenceKey, 5);
  return answer;
}
void reply(const XPCDictionary& answer) {
  answer.remoteConnection().sendMessage(answer);
}

// Each request goes to the script, or without one waits for the test to answer it when it likes.
class Agent {
 public:
  explicit Agent(ScriptedService::Script script = {})
      : service_(
            listener_,
            script ? std::move(script) : [this](const XPCDictionary& request) { requests_.put(request); }) {}

  XPCConnection connect() const { return XPCConnection::createClient(listener_.endpoint()); }
  XPCDictionary nextRequest() { return requests_.take().value(); }

 private:
  Inbox<XPCDictionary> requests_;
  const XPCConnection listener_ = XPCConnection::createAnonymousListener();
  const ScriptedService service_;
};

std::shared_ptr<SVKSkyvaultServiceClient> clientOf(const Agent& agent) {
  return std::make_shared<SVKSkyvaultServiceClient>([&agent] { return agent.connect(); });
}

Answer askForHash(SVKSkyvaultServiceClient& client, std::chrono::milliseconds timeout = kLong) {
  Completions completions;
  client.queryReputationForFileHash(std::string(64, 'a'), timeout, completions.make());
  return completions->waitForOne();
}

TEST(SkyvaultClient, AsksWithWhatItIsGivenAndNothingElse) {
  Agent agent;
  const auto client = clientOf(agent);
  const Dictionary metadata{{"context", "browser"}};
  const URL url = *URL::create("http://h/?a=%20#b");
  const std::vector<std::string> wanted{"adult", "games"};
  Completions done;
  const std::pair<std::function<void()>, Dictionary> cases[] = {
      {[&] { client->queryReputationForFileHash("0f", kLong, done.make()); },
       {{kRequestKey, kRequestHash}, {kSHA256Key, "0f"}}},
      {[&] { client->analyzeMetadata(metadata, kLong, done.make()); },
       {{kRequestKey, kRequestMetadata}, {kMetadataKey, metadata}}},
      {[&] { client->queryReputationForURL(url, {}, {}, kLong, done.make()); },
       {{kRequestKey, kRequestURL}, {kURLKey, "http://h/?a=%20#b"}}},
      {[&] { client->queryReputationForURL(url, wanted, metadata, kLong, done.make()); },
       {{kRequestKey, kRequestURL},
        {kURLKey, "http://h/?a=%20#b"},
        {kCategoriesWantedKey, Array{"adult", "games"}},
        {kMetadataKey, metadata}}},
  };
  for (const auto& [ask, expected] : cases) {
    ask();
    EXPECT_EQ(valueFromXPCObject(agent.nextRequest()), Value(expected)) << description(expected);
  }
}

TEST(SkyvaultClient, CarriesASampleAndBringsTheAnswerBack) {
  Agent agent;
  const auto client = clientOf(agent);
  const Dictionary metadata{{"file_size", std::uint64_t{3}}, {"file_info", Dictionary{{"created", -1}}}};
  const ScratchFolder folder;
  Completions completions;
  auto handle = std::make_shared<FileHandle>(
      openForReading(folder.write("sample", "the sample").c_str()).release(), true, 501);
  client->analyzeFileHandle(handle, metadata, kLong,
                            [watch = std::weak_ptr(handle), done = completions.make()](
                                const auto& response, const ErrorPtr& error) {
                              EXPECT_FALSE(watch.expired())
                                  << "the sample stays open until its completion has been called";
                              done(response, error);
                            });
  handle.reset();
  const XPCDictionary request = agent.nextRequest();
  EXPECT_EQ(request.getString(kRequestKey), kRequestSample);
  EXPECT_EQ(valueFromXPCObject(request.value(kMetadataKey)), Value(metadata));
  EXPECT_EQ(request.value(kUserIDKey), XPCObject::uint64(501));
  char content[16] = {};
  EXPECT_EQ(readAt(request.duplicateDescriptor(kFileKey).get(), content, sizeof content, 0), 10);
  EXPECT_STREQ(content, "the sample");
  XPCDictionary answer = soundAnswer(request);
  answer.setString(kInfectionNameKey, "Trojan.X");
  reply(answer);
  const auto response = completions->waitForOne().response;
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->safetyVerdict.value, "unwanted");
  EXPECT_EQ(response->safetyVerdict.infectionName, "Trojan.X");
  EXPECT_EQ(response->options, 33u);
  EXPECT_EQ(response->ttl, 77u);
  EXPECT_EQ(response->prevalence, 5);
}

TEST(SkyvaultClient, WhateverHappensToACallItCompletesOnceAndTheNextOneIsServed) {
  Agent agent;
  auto client = clientOf(agent);
  Completions late, twice, waiting, unreadable, tooLarge, last;
  client->queryReputationForFileHash("late", 30ms, late.make());
  EXPECT_EQ(late->waitForOne().code(), ErrorCode::timedOut);
  reply(soundAnswer(agent.nextRequest()));
  client->queryReputationForFileHash("twice", kLong, twice.make());
  const XPCDictionary request = agent.nextRequest();
  for (int i = 0; i < 2; ++i) reply(soundAnswer(request));
  EXPECT_NE(twice->waitForOne().response, nullptr);
  EXPECT_EQ(askForHash(*client, -5ms).code(), ErrorCode::timedOut);
  client->analyzeFileHandle(std::make_shared<FileHandle>(-1, false), {}, kLong, unreadable.make());
  const Answer failed = unreadable->waitForOne();
  EXPECT_EQ(failed.code(), ErrorCode::unreadableSample);
  EXPECT_EQ(failed.error->localizedDescription(), "The sample cannot be passed on: Bad file descriptor.");
  client->analyzeMetadata({{"xattrs", Array(100'000)}}, kLong, tooLarge.make());
  EXPECT_EQ(tooLarge->waitForOne().code(), ErrorCode::requestTooLarge)
      << "more values than a message may hold";

  for (int i = 0; i < 3; ++i) client->queryReputationForFileHash("waiting", kLong, waiting.make());
  for (int i = 0; i < 2; ++i) agent.nextRequest();
  agent.nextRequest().remoteConnection().cancel();
  for (const Answer& answer : waiting->waitFor(3)) EXPECT_EQ(answer.code(), ErrorCode::connectionLost);
  EXPECT_EQ(late->size() + twice->size(), 2u);

  client = clientOf(agent);
  client->queryReputationForFileHash("last", kLong, last.make());
  agent.nextRequest();
  client.reset();
  EXPECT_EQ(last->waitForOne().code(), ErrorCode::connectionLost) << "the client is gone";
}

TEST(SkyvaultClient, AnAnswerThatIsNoneIsAnErrorThatSaysWhy) {
  const auto listOf = [](Dictionary category) { return xpcObjectFromValue(Array{std::move(category)}); };
  const struct {
    const char* key;
    XPCObject value;
    ErrorCode code = ErrorCode::malformedResponse;
    std::string text = "The Skyvault agent's answer has no valid “" + std::string(key) + "”.";
  } cases[] = {
      {kVerdictKey, {}},
      {kVerdictKey, XPCObject::int64(1)},
      {kOptionsKey, XPCObject::int64(1)},
      {kTTLKey, XPCObject::int64(-1)},
      {kPrevalenceKey, XPCObject::real(1)},
      {kInfectionNameKey, XPCObject::data("x", 1)},
      {kCategoriesKey, XPCObject::string("adult")},
      {kCategoriesKey, xpcObjectFromValue(Array{"adult"})},
      {kCategoriesKey, listOf({{kCategoryValueKey, true}})},
      {kCategoriesKey, listOf({{kCategoryNameKey, "adult"}, {kCategoryValueKey, 1}})},
      {kErrorCodeKey, XPCObject::string("4")},
      {kErrorCodeKey, XPCObject::int64(4), ErrorCode::invalidRequest, "The Skyvault agent reports an error."},
  };
  for (const auto& expected : cases) {
    const Agent agent([&expected](const XPCDictionary& request) {
      XPCDictionary answer = soundAnswer(request);
      answer.setValue(expected.key, expected.value);
      reply(answer);
    });
    const Answer answer = askForHash(*clientOf(agent));
    ASSERT_NE(answer.error, nullptr) << expected.text;
    EXPECT_EQ(answer.error->domain(), kErrorDomain);
    EXPECT_EQ(answer.code(), expected.code) << expected.text;
    EXPECT_EQ(answer.error->localizedDescription(), expected.text);
  }
}

TEST(SkyvaultClient, ManyThreadsAskWhileTheAgentHangsUpNowAndThen) {
  constexpr int kThreads = 4, kCalls = 100;
  std::atomic<int> served = 0, answered = 0, lost = 0;
  const Agent agent([&](const XPCDictionary& request) {
    if (++served % 50 == 0) return request.remoteConnection().cancel();
    reply(soundAnswer(request));
  });
  const auto client = clientOf(agent);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&] {
      Completions completions;
      for (int call = 0; call < kCalls; ++call)
        client->queryReputationForFileHash("a", kLong, completions.make());
      for (const Answer& answer : completions->waitFor(kCalls))
        ++(answer.response != nullptr ? answered : lost);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(answered + lost, kThreads * kCalls);
  EXPECT_GT(lost, 0);
  // The last of the connections may be one that was hung up; two in a row are not.
  EXPECT_TRUE(askForHash(*client).response != nullptr || askForHash(*client).response != nullptr);
}

}  // namespace
