// Imports of verdicts about URLs: what lines say, what becomes of the store, and the program around it.
#include <sqlite3.h>

#include "support/child_process.hpp"
#include "tools/qmverdicts/import_run.hpp"

namespace qm::qmverdicts {
namespace {

using testing::HasSubstr;

const StoredURLVerdict kDefault{{"unwanted", std::nullopt, 0, 60, "list", 1}, {{"ads", true}}};

struct ImportCase {
  std::string line;
  std::vector<std::string> keys;
  std::string reason;
};

void expectAll(ImportFormat& format, const std::vector<ImportCase>& cases) {
  for (const auto& [line, keys, reason] : cases) {
    const ImportedLine imported = format.parse(line);
    std::vector<std::string> found;
    for (const auto& [key, record] : imported.entries) found.push_back(key);
    EXPECT_EQ(found, keys) << line;
    EXPECT_EQ(imported.skipped, reason) << line;
  }
}

TEST(VerdictImport, ABlockListGivesTheHostsThatLeadNowhere) {
  HostsFormat format(kDefault);
  expectAll(format, {{"", {}, ""},
                     {"  # 0.0.0.0 a.example", {}, ""},
                     {"0.0.0.0 A.example\tb.example. # c.example", {"a.example", "b.example"}, ""},
                     {"::1 ip6-localhost v6.example", {"v6.example"}, ""},
                     {"127.0.0.1 localhost localhost.localdomain", {}, ""},
                     {"0.0.0.0 0.0.0.0", {}, ""},
                     {"192.168.1.1 localhost", {}, ""},
                     {"192.168.1.1 nas", {}, "the address of a real host"},
                     {"a.example", {}, "does not begin with an address"},
                     {"0.0.0.0", {}, "no host name behind the address"},
                     {"0.0.0.0 a.example http://b.example/", {}, "not a host name"}});
}

TEST(VerdictImport, ValuesAreFoundByTheirColumnAndTheRestIsTheDefault) {
  CSVFormat format(kDefault);
  expectAll(format,
            {{"# made today", {}, ""}, {R"(id, URL ,Verdict,ttl,categories,name,prevalence)", {}, ""}});
  const std::string quoted = R"(1,"http://a.example/?q=1,""2""", malicious ,5,"x y=0",Phish.X,255)";
  EXPECT_TRUE(format.parse(quoted).entries.empty()) << "a quote is no character of a URL";
  const auto full =
      format.parse(R"(1,"http://a.example/?q=1,2", malicious ,5,"x y=0","Phish ""X""",255)").entries;
  const StoredURLVerdict expected{{"malicious", R"(Phish "X")", 255, 5, "list", 1},
                                  {{"x", true}, {"y", false}}};
  EXPECT_EQ(full, (std::vector<VerdictStore::URLEntry>{{"http://a.example/?q=1,2", expected}}));
  EXPECT_EQ(format.parse("1,b.example").entries,
            (std::vector<VerdictStore::URLEntry>{{"b.example", kDefault}}));
  expectAll(format, {{"1,b.example,bad", {}, "no known verdict"},
                     {"1", {}, "no URL with a host and no host name"},
                     {"1,b.example,,-1", {}, "a prevalence or ttl that is no number in its range"},
                     {"1,b.example,,,,,256", {}, "a prevalence or ttl that is no number in its range"},
                     {"1,b.example,,,a;b", {}, "categories that are no list of names"},
                     {"1,b.example,,,,\xff", {}, "an infection name of more than 255 bytes or not UTF-8"},
                     {"1,\"b.example", {}, "quotes out of place"},
                     {"1,b.\"example\"", {}, "quotes out of place"},
                     {"1,\"b.example\"x", {}, "quotes out of place"}});
  EXPECT_EQ(format.failure(), std::nullopt);
  for (const char* header : {"host,verdict", "url,URL", "\"url"}) {
    CSVFormat other(kDefault);
    other.parse(header);
    EXPECT_NE(other.failure(), std::nullopt) << header;
  }
}

TEST(VerdictImport, WhatASummarySaysIsInTheStoreWhereverTheImportEnds) {
  const ScratchFolder folder;
  const std::string path = folder.path("verdicts.sqlite");
  const auto store =
      VerdictStore::open(path, VerdictStore::Access::readWrite, nullptr, std::chrono::milliseconds(1));
  StoredURLVerdict manual = kDefault;
  manual.source = kVerdictSourceManual;
  ASSERT_TRUE(store->addURLs({{"h3.example", manual}}));
  std::string text =
      "\xef\xbb\xbf"
      "127.0.0.1 localhost\r\nbad\nbad\n";
  for (std::size_t i = 1; i <= ImportRun::kBatchSize; ++i)
    text += "0.0.0.0 h" + std::to_string(i) + ".example\r\n";
  text += std::string(ImportRun::kMaximumLineLength + 1, 'x') + "\nbad\n0.0.0.0 last.example";
  for (const bool isLocked : {true, false}) {
    sqlite3* other = nullptr;
    sqlite3_open(path.c_str(), &other);
    HostsFormat format(kDefault);
    std::ostringstream screen, summary;
    qmr::ProgressLine progress(screen, 0);
    ImportRun run(*store, format, progress);
    std::size_t position = 0;
    const auto failure = run.run([&](char* buffer, std::size_t size) {
      // In the middle of the long line the first batch is in the store; from there somebody else holds the
      // lock.
      if (isLocked && position + ImportRun::kMaximumLineLength / 2 > text.size())
        sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
      const std::size_t count = text.copy(buffer, std::min<std::size_t>(size, 997), position);
      position += count;
      return static_cast<std::int64_t>(count);
    });
    sqlite3_close(other);
    run.conclude(summary);
    EXPECT_EQ(failure.has_value(), isLocked);
    EXPECT_EQ(store->countURLs(), (VerdictStore::Counts{{"unwanted", isLocked ? 10000u : 10001u}}));
    EXPECT_EQ(store->findURL({"h3.example"})->second, manual);
    EXPECT_EQ(summary.str(),
              isLocked ? "10003 lines: 9999 verdicts put into the store, 1 left as a person gave them, "
                         "2 lines skipped\nskipped, does not begin with an address: lines 2-3\n"
                       : "10006 lines: 10000 verdicts put into the store, 1 left as a person gave them, "
                         "4 lines skipped\nskipped, does not begin with an address: lines 2-3, 10005\n"
                         "skipped, longer than 64 KiB: line 10004\n");
    EXPECT_EQ(screen.str(), "") << "no terminal";
  }
}

TEST(VerdictImport, TheProgramTakesURLsFromTheCommandLineAndListsAndSaysWhichRecordAnswers) {
  const ScratchFolder folder;
  const auto qmverdicts = [&](int status, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {QM_QMVERDICTS, "--store", folder.path("s.sqlite")});
    const CommandResult result = runCommand(arguments);
    EXPECT_EQ(result.exitStatus, status) << result.output;
    return result.output;
  };
  const std::string list = folder.write("list", "0.0.0.0 Ads.example\nbad\n");
  qmverdicts(0, {"add-url", "Evil.example", "http://evil.example/ok", "--verdict", "malicious", "--category",
                 "x", "--category", "y=0"});
  EXPECT_THAT(
      qmverdicts(1, {"show-url", "http://a.evil.example/", "http://b.example/"}),
      testing::AllOf(HasSubstr("evil.example malicious prevalence=0 ttl=86400 source=manual added="),
                     HasSubstr("categories=\"x y=0\"  http://a.evil.example/\nhttp://b.example/ not in")));
  qmverdicts(2, {"import-url", "--format", "hosts", list});
  EXPECT_THAT(qmverdicts(1, {"import-url", "--format", "hosts", "--verdict", "pu", "--source", "l", list}),
              HasSubstr("skipped, does not begin with an address: line 2\n"));
  EXPECT_THAT(qmverdicts(0, {"show-url", "x.ads.example"}), HasSubstr("ads.example pu prevalence=0"));
  EXPECT_EQ(qmverdicts(0, {"remove-url", "--source", "l"}), "1 removed\n");
  EXPECT_EQ(qmverdicts(0, {"count-url"}), "malicious    2\ntotal        2\n");
  for (const std::string source : {"manual", "analysis"})
    qmverdicts(2, {"import-url", "--format", "hosts", "--verdict", "pu", "--source", source, list});
  qmverdicts(2, {"remove-url"});
  qmverdicts(2, {"add-url", "evil.example", "not a host", "--verdict", "pu"});
  EXPECT_EQ(qmverdicts(1, {"remove-url", "http://evil.example/other"}), "0 removed\n");

  // An import that waits for more lines ends at Ctrl-C with a true summary.
  ChildProcess running({QM_QMVERDICTS, "--store", folder.path("s.sqlite"), "import-url", "--format", "csv",
                        "--verdict", "pu", "-"},
                       true);
  while (!testing::Value(
      runCommand({"grep", "SigCgt", "/proc/" + std::to_string(running.pid()) + "/status"}).output,
      testing::MatchesRegex(".*[2367abef]\n"))) {  // until it handles SIGINT
  }
  ::kill(running.pid(), SIGINT);
  EXPECT_THAT(running.readToEnd(), HasSubstr("0 lines: 0 verdicts put into the store"));
  EXPECT_EQ(WTERMSIG(running.wait()), SIGINT);
}

}  // namespace
}  // namespace qm::qmverdicts
