// A whole "qmr check" in this process, against a service that does what the file names say.
#include "tools/qmr/check_run.hpp"

#include <nlohmann/json.hpp>

#include "support/scripted_service.hpp"

using namespace qm::qmr;

namespace {

struct Result {
  RunOutcome outcome;
  std::string output;
  std::string errors;

  // Of each line "PATH: VERDICT", "PATH: VERDICT (delayed)" or "FAILURE: ERROR", sorted.
  std::vector<std::string> answers() const {
    std::vector<std::string> answers;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
      const auto object = nlohmann::json::parse(line);
      const auto text = [&object](const char* key) { return object[key].get<std::string>(); };
      answers.push_back(object.contains("failure") ? text("failure") + ": " + text("error")
                                                   : text("path") + ": " + text("verdict") +
                                                         (object["delayed"] ? " (delayed)" : ""));
    }
    std::sort(answers.begin(), answers.end());
    return answers;
  }
};

using Answers = std::vector<std::string>;

class CheckRunTest : public ::testing::Test {
 protected:
  void byName(const XPCDictionary& request) {
    const std::string name = std::filesystem::path(request.getString("filename").value_or("")).filename();
    if (name.starts_with("bad")) return answer(request, {.level = 0, .infectionName = "Test.Virus"});
    if (name.starts_with("silent")) return asked.set_value();
    answer(request, {.level = name.starts_with("new") ? 1 : 2});
    if (name.starts_with("new-bad")) answerLater(request, {.level = 0, .infectionName = "Late.Virus"});
  }

  Result check(CheckOptions options, const std::string& input = {}) {
    std::istringstream in(input);
    std::ostringstream out;
    std::ostringstream err;
    ReputationClientOptions client;
    client.serviceName = serviceName;
    client.reconnectTimeout = std::chrono::milliseconds(1);  // a service that has ended does not come back
    const auto run = std::make_shared<CheckRun>(options, client, RunStreams{in, out, err}, RunAppearance{});
    const RunOutcome outcome = run->run();
    EXPECT_FALSE(outcome.feederStuck);
    return {outcome, out.str(), err.str()};
  }

  const std::string serviceName = "com.quillmarsh.test" + std::to_string(::getpid()) + ".qmreputationd";
  ScratchFolder folder;
  std::promise<void> asked;
  ScriptedService service{serviceName, [this](const XPCDictionary& request) { byName(request); }};
};

TEST_F(CheckRunTest, EveryPathIsReportedAndTheRestGoesOn) {
  const std::string clean = folder.write("clean", "x");
  const Result result = check({.paths = {folder.path("missing"), folder.path(), clean}, .json = true});
  EXPECT_EQ(result.outcome.exitStatus, 2);
  EXPECT_EQ(result.answers(), (Answers{clean + ": trusted", "not-a-regular-file: is a directory (use -r)",
                                       "unreadable-file: No such file or directory"}));
  EXPECT_EQ(result.errors, "3 files: 1 trusted; 2 not answered\n");
}

TEST_F(CheckRunTest, DirectoriesAreSearchedWithoutFollowingLinks) {
  folder.write("top/b/clean", "x");
  folder.write("top/a/bad", "x");
  folder.write("elsewhere/bad", "x");
  std::filesystem::create_directory_symlink(folder.path("elsewhere"), folder.path("top/link"));
  std::filesystem::create_symlink(folder.path("elsewhere/bad"), folder.path("top/a/file-link"));
  std::filesystem::create_directory_symlink(folder.path("top"), folder.path("named-link"));
  const std::string top = folder.path("named-link");
  const Result result = check({.paths = {top}, .recursive = true, .oneFileSystem = true, .json = true});
  EXPECT_EQ(result.answers(), (Answers{top + "/a/bad: untrusted", top + "/b/clean: trusted"}));
  EXPECT_EQ(result.errors, "2 files: 1 untrusted, 1 trusted; 2 symbolic links not followed\n");
}

TEST_F(CheckRunTest, ADelayedVerdictIsShownAndCounts) {
  const std::string late = folder.write("new-bad", "x");
  const std::string clean = folder.write("clean", "x");
  const Result result = check({.paths = {late, clean}, .json = true, .follow = std::chrono::seconds(60)});
  EXPECT_EQ(result.answers(),
            (Answers{clean + ": trusted", late + ": unknown", late + ": untrusted (delayed)"}));
  EXPECT_EQ(result.errors, "2 files: 1 untrusted, 1 trusted\n");
  EXPECT_EQ(result.outcome.exitStatus, 1);
  EXPECT_EQ(check({.paths = {late}}).outcome.exitStatus, 0);  // not waited for
}

TEST_F(CheckRunTest, AServiceThatEndsWhileDelayedAnswersAreOwedEndsTheWait) {
  const std::string unknown = folder.write("new", "x");
  const std::string trigger = folder.write("silent", "x");
  std::thread death([&] {
    asked.get_future().wait();
    service.end();
  });
  const Result result = check({.paths = {unknown, trigger},
                               .follow = std::chrono::seconds(50),
                               .jobs = 1,
                               .timeout = std::chrono::seconds(50)});
  death.join();
  EXPECT_NE(result.errors.find("1 delayed answer will not come"), std::string::npos) << result.errors;
}

TEST_F(CheckRunTest, PathsComeFromStandardInputToo) {
  const std::string clean = folder.write("clean", "x");
  const std::string odd = folder.write("bad\nname", "x");
  EXPECT_EQ(check({.paths = {"-"}}, clean + "\n\n" + clean).errors, "2 files: 2 trusted\n");
  EXPECT_EQ(check({.paths = {"-", clean}, .nullSeparated = true}, odd + '\0' + clean + '\0').errors,
            "3 files: 1 untrusted, 2 trusted\n");
}

}  // namespace
