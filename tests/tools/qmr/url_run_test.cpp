// A whole "qmr url" in this process, against a backend that does what the URLs say.
#include "tools/qmr/url_run.hpp"

#include <nlohmann/json.hpp>

#include "platform/queue.hpp"
#include "reputation/QMRReputationLookup.hpp"
#include "support/testing.hpp"

using namespace qm::qmr;

namespace {

class Provider final : public QMRReputationLookup {
 public:
  void reputationForURL(const std::string& url, std::uint32_t timeout,
                        const URLReputationCompletion& callback) override {
    EXPECT_EQ(timeout, 0U);
    mostAtOnce = std::max<std::size_t>(mostAtOnce, ++atOnce_);
    if (url == "silent") kept_ = callback;
    if (url == "silent" && whenSilent) whenSilent();
    if (url == "dropped" || url == "silent") return;
    Queue::global().async([this, self = shared_from_this(), url, callback] { answer(url, callback); });
  }
  // What it never answered holds the run that asked.
  void forgetUnanswered() { kept_ = nullptr; }
  std::atomic<std::size_t> mostAtOnce = 0;
  Block<void()> whenSilent;

 private:
  void answer(const std::string& url, const URLReputationCompletion& callback) {
    --atOnce_;
    if (url == "failing")
      return callback(std::make_shared<QMRURLReputationResult>(
          kUnknownRating(), 0U,
          lookupErrorWithCode(
              7, makeError("d", 7, {{kLocalizedDescriptionKey, "A \"bad\" day"}})->description())));
    const std::int64_t safe = url == "bad" ? -20 : url == "good" ? 100 : 0;
    callback(std::make_shared<QMRURLReputationResult>(
        Dictionary{{"cats", Dictionary{{"safe", safe}, {"ads\x1b[2J", 100}, {"news", 0}}}}, 60U, nullptr));
  }
  std::atomic<std::size_t> atOnce_ = 0;
  URLReputationCompletion kept_;
};

struct Result {
  int exitStatus = 0;
  std::string output;
  std::string errors;
};

class URLRunTest : public ::testing::Test {
 protected:
  Result ask(URLOptions options, const std::string& input = {}) {
    options.timeout = std::chrono::seconds(0);
    std::istringstream in(input);
    std::ostringstream out;
    std::ostringstream err;
    const auto advice = [](const URLAnswer& answer) {
      return answer.errorCode == 7 ? std::string("do this") : std::string();
    };
    const auto run =
        std::make_shared<URLRun>(options, URLBackend{.name = "Test", .provider = provider, .advice = advice},
                                 RunStreams{in, out, err}, RunAppearance{});
    provider->whenSilent = [weak = std::weak_ptr(run), this] {
      if (stopsWhenSilent) weak.lock()->stop();
    };
    const RunOutcome outcome = run->run();
    provider->forgetUnanswered();
    EXPECT_FALSE(outcome.feederStuck);
    return {outcome.exitStatus, out.str(), err.str()};
  }

  const std::shared_ptr<Provider> provider = std::make_shared<Provider>();
  bool stopsWhenSilent = false;
};

TEST_F(URLRunTest, WhatIsUnsafeWinsOverWhatIsNotAnswered) {
  const struct {
    std::vector<std::string> urls;
    int exitStatus;
    std::string errors;
  } cases[] = {
      {{"good", "other"}, 0, "2 URLs: 1 unknown, 1 safe\n"},
      {{"good", "failing", "failing"}, 2, "qmr: do this\n3 URLs: 1 safe; 2 not answered\n"},
      {{"dropped"}, 2, "1 URL: 1 not answered\n"},
      {{"silent"}, 2, "1 URL: 1 not answered\n"},
      {{"dropped", "bad"}, 1, "2 URLs: 1 unsafe; 1 not answered\n"},
  };
  for (const auto& [urls, exitStatus, errors] : cases) {
    const bool waitsInVain = urls.front() == "silent";
    const Result result = ask({.urls = urls, .grace = std::chrono::milliseconds(waitsInVain ? 1 : 60000)});
    EXPECT_EQ(result.exitStatus, exitStatus);
    EXPECT_EQ(result.errors, errors);
  }
}

TEST_F(URLRunTest, ManyAreAskedAboutAtOnceAndAnsweredInTheirOrder) {
  std::string input = " bad \r\n\n";
  for (int i = 0; i < 500; ++i) input += "http://host" + std::to_string(i) + "/\n";
  const Result result =
      ask({.urls = {"good", "-"}, .json = true, .jobs = 4, .grace = std::chrono::minutes(1)}, input);
  std::string urls;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);)
    urls += nlohmann::json::parse(line)["url"].get<std::string>() + "\n";
  EXPECT_EQ(urls, "good\nbad" + input.substr(input.rfind('\r') + 1).substr(1));
  EXPECT_LE(provider->mostAtOnce, 4U);
}

TEST_F(URLRunTest, TheTableAndTheLinesSayWhatWasAnswered) {
  const std::vector<std::string> urls{"bad", "failing", "dropped"};
  const std::string table = ask({.urls = urls, .grace = std::chrono::minutes(1)}).output;
  EXPECT_EQ(table.find('\x1b'), std::string::npos) << table;
  for (const char* row : {"  -20          60  Test     ads\\e[2J=100, news=0              bad\n",
                          "error           -  Test     A \"bad\" day                       failing\n",
                          "error           -  Test     the Test service gave no answer "})
    EXPECT_NE(table.find(row), std::string::npos) << table;

  std::istringstream lines(ask({.urls = urls, .json = true, .grace = std::chrono::minutes(1)}).output);
  std::vector<nlohmann::json> objects;
  for (std::string line; std::getline(lines, line);) objects.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(objects.size(), 3U);
  EXPECT_EQ(objects[0]["safe"], -20);
  EXPECT_EQ(objects[0]["ttl"], 60);
  EXPECT_EQ(objects[0]["categories"], (nlohmann::json{{"ads\x1b[2J", 100}, {"news", 0}}));
  EXPECT_EQ(objects[1]["errorCode"], 7);
  EXPECT_EQ(objects[1]["failure"], "reported-by-backend");
  EXPECT_EQ(objects[2]["failure"], "dropped");
}

TEST_F(URLRunTest, ARunThatIsStoppedCountsWhatHasNoAnswer) {
  stopsWhenSilent = true;
  const Result result = ask({.urls = {"silent", "good"}, .grace = std::chrono::hours(1)});
  EXPECT_EQ(result.errors, "1 URL: 1 not answered; 1 was not asked\n");
  EXPECT_EQ(result.exitStatus, 2);
}

}  // namespace
