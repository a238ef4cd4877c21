#include "reputation/backends/QMRBasaltReputationLookup.hpp"

#include <functional>

#include "reputation/reputation_support.hpp"

namespace {

using namespace std::chrono_literals;
namespace level = reputation_level;

constexpr std::uint64_t kFromServer = 1, kSageSuccess = 16, kUploadRequested = 32;

struct Answer {
  std::string verdict = SVKSkyvaultSafetyVerdictValueUnknown;
  std::uint64_t options = 1;
  std::uint64_t ttl = 60;
  std::int64_t prevalence = 0;
  std::optional<std::string> infectionName = std::nullopt;
  std::vector<SVKSkyvaultCategory> categories = {};

  std::shared_ptr<const SVKSkyvaultResponse> response() const {
    return std::make_shared<SVKSkyvaultResponse>(
        SVKSkyvaultResponse{{verdict, infectionName}, options, ttl, prevalence, categories});
  }
};

// Stands in for the Skyvault client: keeps every call until the test answers it.
class SkyvaultSubstitute final : public SVKSkyvaultServiceClientProtocol {
 public:
  struct Call {
    std::string operation;
    std::string question;  // the hash or URL
    std::optional<Dictionary> metadata;
    std::shared_ptr<FileHandle> fileHandle;
    std::chrono::milliseconds timeout{0};
    Completion completion;
    bool isFiltered = false;

    void answer(const Answer& answer) const { completion(answer.response(), nullptr); }
    void fail(const ErrorPtr& error) const { completion(nullptr, error); }
  };

  // The oldest call that has not been taken yet, which must be one of the operation.
  Call take(const std::string& operation) {
    Call call = calls.take().value();
    EXPECT_EQ(call.operation, operation);
    return call;
  }

  void queryReputationForFileHash(const std::string& sha256Hex, std::chrono::milliseconds timeout,
                                  Completion completion) override {
    calls.put({"hash", sha256Hex, {}, nullptr, timeout, std::move(completion)});
  }
  void analyzeMetadata(const Dictionary& metadata, std::chrono::milliseconds timeout,
                       Completion completion) override {
    calls.put({"metadata", "", metadata, nullptr, timeout, std::move(completion)});
  }
  void analyzeFileHandle(std::shared_ptr<FileHandle> fileHandle, const Dictionary& metadata,
                         std::chrono::milliseconds timeout, Completion completion) override {
    calls.put({"sample", "", metadata, std::move(fileHandle), timeout, std::move(completion)});
  }
  void queryReputationForURL(const URL& url, const std::optional<std::vector<std::string>>& categories,
                             const std::optional<Dictionary>& metadata, std::chrono::milliseconds timeout,
                             Completion completion) override {
    calls.put({"url", url.absoluteString(), metadata, nullptr, timeout, std::move(completion),
               categories.has_value()});
  }
  std::string description() const override { return "<SkyvaultSubstitute>"; }

  Inbox<Call> calls;
};

class BasaltLookupTest : public RecordedTest {
 protected:
  std::shared_ptr<QMRFileReputationRequest> openFile() const {
    return makeRequest({.path = path_, .fileHandle = openHandle(path_)});
  }
  // The answers of one URL lookup; `serve` answers the client's call when there is one.
  std::shared_ptr<const QMRURLReputationResult> askForURL(
      const std::string& url, const std::function<void(const SkyvaultSubstitute::Call&)>& serve,
      std::uint32_t timeout = 5) const {
    std::vector<std::shared_ptr<const QMRURLReputationResult>> results;
    lookup_->reputationForURL(url, timeout, [&](const auto& result) { results.push_back(result); });
    if (client_->calls.size() > 0) {
      const auto call = client_->calls.take();
      EXPECT_EQ(call->operation, "url");
      EXPECT_EQ(call->question, url);
      EXPECT_TRUE(results.empty());
      serve(*call);
    }
    EXPECT_EQ(results.size(), 1u) << url;
    return results.at(0);
  }
  // What was logged after the first `skipped` lines: these, all on one level.
  void expectLines(std::size_t skipped, LogLevel expected, const std::vector<std::string>& messages) const {
    std::vector<std::string> said;
    const std::vector<LogLine> lines = recorder.lines();
    for (std::size_t i = skipped; i < lines.size(); ++i) {
      EXPECT_EQ(lines[i].category, "QMRBasaltReputationLookup");
      EXPECT_EQ(lines[i].level, expected) << lines[i].message;
      said.push_back(lines[i].message);
    }
    EXPECT_EQ(said, messages);
  }
  void ask(Replies& replies) { lookup_->reputationForFile(openFile(), replies.block()); }
  // Leads a lookup to the point where the cloud asks for the sample.
  void askUntilUploadIsRequested(const std::shared_ptr<QMRFileReputationRequest>& request) {
    lookup_->reputationForFile(request, replies_.block());
    client_->take("hash").answer({});
    client_->take("metadata").answer({.options = kUploadRequested});
  }

  const std::string path_ = folder.write("tool.sh", "content");
  const std::shared_ptr<SkyvaultSubstitute> client_ = std::make_shared<SkyvaultSubstitute>();
  std::shared_ptr<QMRBasaltReputationLookup> lookup_ = std::make_shared<QMRBasaltReputationLookup>(client_);
  const ErrorPtr cloudError_ = makeError("cloud", 12, {{"k", "v"}});
  Replies replies_;
  Replies delayed_;
};

TEST_F(BasaltLookupTest, AKnownFileIsAnsweredByTheHashLookupAlone) {
  ask(replies_);
  const auto call = client_->take("hash");
  EXPECT_EQ(call.question, std::string(64, '2'));
  EXPECT_EQ(call.timeout, 5000ms);
  call.answer({SVKSkyvaultSafetyVerdictValueMalicious, 1 | 8 | kUploadRequested, 3600, 0x1FE, "Trojan.X"});
  expectAnswer(replies_.only(), level::untrusted, 0xFE, 3600, "Trojan.X");
  EXPECT_EQ(client_->calls.size(), 0u) << "only the metadata analysis may ask for a sample";
}

TEST_F(BasaltLookupTest, AnUnknownFileIsAnalysedUploadedAndAnsweredAgain) {
  lookup_->setDelayedResponseCallback(delayed_.block());
  lookup_->addBaseMetadataValue("local_file", "context");
  const auto asked = openFile();
  lookup_->reputationForFile(asked, replies_.block());
  client_->take("hash").answer({.ttl = 7, .prevalence = 77, .infectionName = "L0"});
  EXPECT_EQ(replies_.size(), 0u);

  const auto analysis = client_->take("metadata");
  EXPECT_EQ(analysis.metadata, asked->metadata());
  EXPECT_NE(find(*analysis.metadata, "context"), nullptr);
  EXPECT_EQ(analysis.timeout, 5000ms);
  analysis.answer({SVKSkyvaultSafetyVerdictValuePU, kFromServer | kUploadRequested, 120, 5, "PUA.Y"});
  // The prevalence stays that of the hash lookup.
  expectAnswer(replies_.only(), level::suspicious, 77, 120, "PUA.Y");

  const auto upload = client_->take("sample");
  EXPECT_EQ(upload.fileHandle, asked->fileHandle());
  EXPECT_EQ(upload.timeout, 600000ms);
  EXPECT_EQ(delayed_.size(), 0u);
  upload.answer({SVKSkyvaultSafetyVerdictValueMalicious, kFromServer | kSageSuccess, 90, 200, "Worm.Z"});
  expectAnswer(delayed_.only(), level::untrusted, 0, 90, "Worm.Z");
  EXPECT_EQ(delayed_.only().result->filename(), path_);
  EXPECT_EQ(replies_.size(), 1u) << "the direct reply came once";
}

TEST_F(BasaltLookupTest, VerdictsHaveTheirLevelAndAURLItsSafeScore) {
  const struct {
    const char* verdict;
    std::uint64_t options;
    ReputationLevel expected;
    std::int64_t safe;
    const char* line;
  } cases[] = {
      {SVKSkyvaultSafetyVerdictValueKnownClean, 1, level::trusted, 100,
       "Basalt safety verdict known_clean mapped to 2 (flags: from server)"},
      {SVKSkyvaultSafetyVerdictValueUndetected, 2, level::undetected, 0,
       "Basalt safety verdict undetected mapped to 7 (flags: SAGE throttled)"},
      {SVKSkyvaultSafetyVerdictValuePU, 0, level::suspicious, -20,
       "Basalt safety verdict pu mapped to 4 (flags: )"},
      {SVKSkyvaultSafetyVerdictValueUnwanted, 4 | 8, level::unwanted, -80,
       "Basalt safety verdict unwanted mapped to 3 (flags: SAGE failed)"},
      {SVKSkyvaultSafetyVerdictValueMalicious, kSageSuccess, level::untrusted, -100,
       "Basalt safety verdict malicious mapped to 0 (flags: SAGE success)"},
      {SVKSkyvaultSafetyVerdictValueUnknown, kFromServer | 8 | kUploadRequested, level::unknown, 0,
       "Basalt safety verdict unknown mapped to 1 (flags: from server,SAGE upload requested)"},
      {"Malicious", 1, level::unknown, 0,
       "Basalt safety verdict Malicious not found in map, falling back to unknown (1)"},
      {SVKSkyvaultSafetyVerdictValueUndetected, ~std::uint64_t{0}, level::unknown, 0,
       "SAGE returned undetected, mapping to unknown"},
      {SVKSkyvaultSafetyVerdictValueUndetected, ~kSageSuccess, level::undetected, 0,
       "Basalt safety verdict undetected mapped to 7 (flags: from server,SAGE throttled,SAGE failed,SAGE "
       "upload requested,SAGE uploaded,HIPS events requested)"},
  };
  // Prevalence is of files: it makes no URL safe.
  lookup_->setPrevalenceThresholdCallback([] { return 0; });
  for (const auto& [verdict, options, expected, safe, line] : cases) {
    SCOPED_TRACE(line);
    const Answer answer{.verdict = verdict, .options = options, .prevalence = 255};
    EXPECT_EQ(lookup_->mapBasaltResponse(*answer.response()), expected);
    EXPECT_EQ(recorder.count(LogLevel::debug, line), 1u);
    const auto result = askForURL("http://h/", [answer](const auto& call) { call.answer(answer); });
    EXPECT_EQ(result->categories(), (Dictionary{{"cats", Dictionary{{"safe", safe}}}}));
  }
  const std::int64_t byLevel[] = {-100, 0, 100, -80, -20, -20, 0, 0, 100, 100};
  for (std::size_t i = 0; i < std::size(byLevel); ++i)
    EXPECT_EQ(QMRBasaltReputationLookup::safeScoreForReputationLevel(i), byLevel[i]) << i;
  EXPECT_EQ(QMRBasaltReputationLookup::safeScoreForReputationLevel(~ReputationLevel{0}), 100);
  EXPECT_EQ(QMRBasaltReputationLookup::basaltResponseOptionsToString(~std::uint64_t{0}),
            "from server,SAGE throttled,SAGE failed,SAGE success,SAGE upload requested,SAGE uploaded,"
            "HIPS events requested");
}

TEST_F(BasaltLookupTest, FailuresReachAllWhoWaitAndTheNextLookupStartsAnew) {
  // A client may also answer nothing at all.
  for (const ErrorPtr& error : {cloudError_, ErrorPtr()}) {
    Replies hash, first, second;
    ask(hash);
    client_->take("hash").fail(error);
    ask(first);
    ask(second);
    for (int i = 0; i < 2; ++i) client_->take("hash").answer({.prevalence = 9});
    client_->take("metadata").fail(error);
    for (const auto& reply : {hash.only(), first.only()}) {
      EXPECT_NE(reply.error, nullptr);
      expectFailure(reply, error ? error : reply.error);
    }
    EXPECT_EQ(second.only().result, nullptr);
    EXPECT_EQ(second.only().error, first.only().error);
  }
  lookup_->setSkyvaultClient(nullptr);
  ask(replies_);
  EXPECT_NE(replies_.only().error, nullptr);
  expectFailure(replies_.only(), replies_.only().error);
}

TEST_F(BasaltLookupTest, LookupsOfOneUnknownFileShareOneAnalysis) {
  Replies first, second, other;
  ask(first);
  ask(second);
  lookup_->reputationForFile(makeRequest({.path = folder.write("other", "content")}), other.block());
  for (int i = 0; i < 3; ++i) client_->take("hash").answer({.prevalence = i});
  const auto analysis = client_->take("metadata");
  const auto otherAnalysis = client_->take("metadata");
  EXPECT_EQ(client_->calls.size(), 0u);

  analysis.answer({SVKSkyvaultSafetyVerdictValueUnwanted, 1, 9, 200});
  expectAnswer(first.only(), level::unwanted, 0, 9);
  EXPECT_EQ(second.only().result, first.only().result);
  EXPECT_EQ(second.only().error, nullptr);
  EXPECT_EQ(other.size(), 0u);
  otherAnalysis.answer({});
  expectAnswer(other.only(), level::unknown, 2, 60);
}

TEST_F(BasaltLookupTest, UnderContentionEveryReplyIsCalledOnce) {
  constexpr std::size_t kThreads = 6, kRounds = 60, kLookups = kThreads * kRounds;
  std::vector<std::jthread> threads;
  for (std::size_t i = 0; i < kThreads; ++i)
    threads.emplace_back([&] {
      for (std::size_t round = 0; round < kRounds; ++round) ask(replies_);
    });
  for (int i = 0; i < 2; ++i)
    threads.emplace_back([&] {
      while (const auto call = client_->calls.take()) {
        if (!call->completion) return;
        call->answer({});
      }
    });
  const auto replies = replies_.waitFor(kLookups);
  for (int i = 0; i < 2; ++i) client_->calls.put({});
  threads.clear();
  EXPECT_EQ(replies_.size(), kLookups);
  for (const Reply& reply : replies) EXPECT_EQ(reply.error, nullptr);
}

TEST_F(BasaltLookupTest, AnUploadThatFailsOrHasNoFileEndsInTheLog) {
  lookup_->setDelayedResponseCallback(delayed_.block());
  const auto asked = openFile();
  askUntilUploadIsRequested(asked);
  lookup_->sageSampleUploadForRequest(asked);
  const auto first = client_->take("sample");
  client_->take("sample").completion(nullptr, nullptr);  // both run at once
  first.fail(cloudError_);
  EXPECT_TRUE(recorder.has(LogLevel::error, "SAGE upload failed: " + cloudError_->description()));
  EXPECT_TRUE(recorder.hasError("SAGE upload failed: Error Domain=com.quillmarsh."));
  askUntilUploadIsRequested(makeRequest({.path = path_}));
  EXPECT_TRUE(recorder.has(LogLevel::standard, "Nil file handle, not doing SAGE upload"));
  EXPECT_EQ(delayed_.size(), 0u);
  EXPECT_EQ(client_->calls.size(), 0u) << "none is tried again";
}

TEST_F(BasaltLookupTest, AnUploadKeepsFileAndProviderUntilItEndsAndNothingAfterwards) {
  const int descriptor = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  auto released = std::make_shared<std::promise<void>>();
  // Held by all that must be let go of; the queue may do so a little later, on another thread.
  auto token = std::shared_ptr<void>(nullptr, [released](void*) { released->set_value(); });
  auto handle = std::shared_ptr<FileHandle>(new FileHandle(descriptor, true),
                                            [token](const FileHandle* last) { delete last; });
  const std::weak_ptr<QMRBasaltReputationLookup> provider = lookup_;
  lookup_->setDelayedResponseCallback(
      [token, forward = delayed_.block()](const auto& result, const auto& error) { forward(result, error); });
  askUntilUploadIsRequested(makeRequest({.path = path_, .fileHandle = std::move(handle)}));
  token.reset();
  lookup_.reset();  // the peer is gone
  {
    auto upload = client_->take("sample");
    upload.fileHandle.reset();
    EXPECT_NE(::fcntl(descriptor, F_GETFD), -1);
    upload.answer({});
  }
  EXPECT_EQ(delayed_.size(), 1u);
  ASSERT_EQ(released->get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(eventually([&] { return ::fcntl(descriptor, F_GETFD) == -1; }));
  EXPECT_TRUE(provider.expired());
}

TEST_F(BasaltLookupTest, AURLIsAskedAboutWithTheBaseMetadataAndItsAnswerIsScored) {
  const std::string url = "https://bank.example/login";
  EXPECT_EQ(askForURL(url,
                      [](const auto& call) {
                        EXPECT_EQ(call.metadata, std::nullopt);
                        call.answer({});
                      })
                ->ttl(),
            60u);
  lookup_->addBaseMetadataValue("browser", "context");
  const std::size_t before = recorder.lines().size();
  const auto result = askForURL(
      url,
      [](const auto& call) {
        EXPECT_FALSE(call.isFiltered);
        EXPECT_EQ(call.metadata, (Dictionary{{"context", "browser"}}));
        EXPECT_EQ(call.timeout, 30000ms);
        call.answer({.verdict = SVKSkyvaultSafetyVerdictValueKnownClean,
                     .ttl = ~std::uint64_t{0},
                     .categories = {{"financial", true}, {"gambling", false}}});
      },
      30);
  const Dictionary scores{{"banking", 100}, {"gambling", 0}, {"safe", 100}};
  EXPECT_EQ(result->categories(), (Dictionary{{"cats", scores}}));
  EXPECT_EQ(result->ttl(), ~std::uint64_t{0});
  EXPECT_EQ(result->error(), nullptr);
  EXPECT_EQ(result->description(), "Categories: " + description(result->categories()) +
                                       ", ttl: 18446744073709551615, error: (null)");
  expectLines(before, LogLevel::debug,
              {"Performing URL lookup for " + url + " with timeout 30 using <SkyvaultSubstitute>",
               "Reputation lookup for URL " + url +
                   " succeeded with scan result known_clean and categories \n"
                   "(\n    \"financial: yes\",\n    \"gambling: no\"\n)",
               "Basalt safety verdict known_clean mapped to 2 (flags: from server)",
               "Sending back the result for URL " + url + " with categories \n" + description(scores)});
}

TEST_F(BasaltLookupTest, CategoriesGetTheirProductNameTheLastOfANameAndTheVerdictWin) {
  const std::pair<const char*, const char*> names[] = {
      {"banking_login", "kvy_banking"},
      {"banking_logout", "kvy_banking_logout"},
      {"banking_safe", "safe"},
      {"financial", "banking"},
      {"tracking_cookie", "kvy_tracking_cookie"},
      {"tracking_domain", "kvy_tracking_domain"},
      {"tracking_object", "kvy_tracking_object"},
      {"tracking_script", "kvy_tracking_script"},
      {"kvy_banking", "kvy_banking"},
      {"Financial", "Financial"},
      {"", ""},
  };
  for (const auto& [name, mapped] : names)
    EXPECT_EQ(QMRBasaltReputationLookup::mapBasaltCategories({{name, true}}), (Dictionary{{mapped, 100}}))
        << name;
  const std::vector<SVKSkyvaultCategory> twice{
      {"financial", true}, {"banking", false}, {"games", false}, {"games", true}, {"safe", true}};
  const Dictionary expected{{"banking", 0}, {"games", 100}, {"safe", -100}};
  EXPECT_EQ(lookup_->formatBasaltResponseWithCategories(
                twice, *Answer{.verdict = SVKSkyvaultSafetyVerdictValueMalicious}.response()),
            expected);
}

TEST_F(BasaltLookupTest, AURLsTimeOutIsSignedSecondsKeptTo32BitsOfMilliseconds) {
  const std::pair<std::uint32_t, std::chrono::milliseconds> cases[] = {
      {0, 0ms}, {1, 1000ms}, {2'147'483, 2'147'483'000ms}, {~0U, -1000ms}, {4'294'968, 704ms}};
  for (const auto& [seconds, expected] : cases)
    askForURL(
        "http://h/",
        [timeout = expected](const auto& call) {
          EXPECT_EQ(call.timeout, timeout);
          call.answer({});
        },
        seconds);
}

TEST_F(BasaltLookupTest, EveryFailureOfAURLLookupIsAnsweredWithTheUnknownRating) {
  const std::string lost =
      lookup_->lookupErrorWithCode(0, "The Skyvault client gave no answer")->description();
  const std::string failed = "Error occurred when performing reputation lookup for URL http://h/: ";
  const struct {
    std::string url;
    bool isAsked;
    ErrorPtr error;  // the client's
    std::int64_t code;
    std::string message, line;
  } cases[] = {
      {"", false, nullptr, 0, "Invalid URL passed",
       "Invalid URL () passed. Not performing reputation lookup"},
      {"http://h/a b", false, nullptr, 0, "Invalid URL passed",
       "Invalid URL ((null)) passed. Not performing reputation lookup"},
      {"http://h/", true, cloudError_, 12, cloudError_->description(), failed + cloudError_->description()},
      {"http://h/", true, nullptr, 0, lost, failed + lost},  // neither an answer nor an error
  };
  for (const auto& expected : cases) {
    const std::size_t before = recorder.lines().size();
    bool isAsked = false;
    const auto result = askForURL(expected.url, [&](const auto& call) {
      isAsked = true;
      call.fail(expected.error);
    });
    EXPECT_EQ(isAsked, expected.isAsked) << expected.url;
    expectUnrated(*result, QMRReputationLookup::kErrorDomain, expected.code, expected.message);
    // The line before it is the one about the question, which only a URL gets.
    expectLines(before + (isAsked ? 1 : 0), LogLevel::error, {expected.line});
  }
  for (const auto& client : {std::shared_ptr<SkyvaultSubstitute>(), client_}) {
    lookup_->setSkyvaultClient(client);
    for (const char* url : {"", "http://h/"}) lookup_->reputationForURL(url, 1, nullptr);
  }
  client_->take("url").fail(cloudError_);
  lookup_->reputationForURL("http://h/", 1, nullptr);
  client_->take("url").answer({});
  lookup_->setSkyvaultClient(nullptr);
  EXPECT_NE(askForURL("http://h/", [](const auto&) {})->error(), nullptr) << "there is no client";
}

}  // namespace
