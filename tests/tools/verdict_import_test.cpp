// Imports of verdicts about URLs: what lines say, what becomes of the store, and the program around it.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/ioctl.h>

#include "support/child_process.hpp"
#include "tools/qmverdicts/csv_format.hpp"
#include "tools/qmverdicts/debian_packages.hpp"
#include "tools/qmverdicts/hash_formats.hpp"
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
    for (const auto& [key, record] : imported.entries) found.push_back(textFromKey(key));
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
  CSVFormat format(CSVSubject::url, kDefault);
  expectAll(format,
            {{"# made today", {}, ""}, {R"(id, URL ,Verdict,ttl,categories,name,prevalence)", {}, ""}});
  const std::string quoted = R"(1,"http://a.example/?q=1,""2""", malicious ,5,"x y=0",Phish.X,255)";
  EXPECT_TRUE(format.parse(quoted).entries.empty()) << "a quote is no character of a URL";
  const auto full =
      format.parse(R"(1,"http://a.example/?q=1,2", malicious ,5,"x y=0","Phish ""X""",255)").entries;
  const StoredURLVerdict expected{{"malicious", R"(Phish "X")", 255, 5, "list", 1},
                                  {{"x", true}, {"y", false}}};
  EXPECT_EQ(full, (std::vector<VerdictEntry>{{"http://a.example/?q=1,2", expected}}));
  EXPECT_EQ(format.parse("1,b.example").entries, (std::vector<VerdictEntry>{{"b.example", kDefault}}));
  expectAll(format, {{"1,b.example,bad", {}, "no known verdict"},
                     {"1", {}, "no URL with a host and no host name"},
                     {"1,b.example,,-1", {}, "a prevalence, ttl or time that is no number in its range"},
                     {"1,b.example,,,,,256", {}, "a prevalence, ttl or time that is no number in its range"},
                     {"1,b.example,,,a;b", {}, "categories that are no list of names"},
                     {"1,b.example,,,,\xff",
                      {},
                      "a name or source of more than 255 bytes, with control characters or not UTF-8"},
                     {"1,\"b.example", {}, "quotes out of place"},
                     {"1,b.\"example\"", {}, "quotes out of place"},
                     {"1,\"b.example\"x", {}, "quotes out of place"}});
  EXPECT_EQ(format.failure(), std::nullopt);
  for (const char* header : {"host,verdict", "url,URL", "\"url"}) {
    CSVFormat other(CSVSubject::url, kDefault);
    other.parse(header);
    EXPECT_NE(other.failure(), std::nullopt) << header;
  }
}

TEST(VerdictImport, ListsOfHashesGiveWhatTheStoreTakes) {
  const std::string sha1(40, 'a'), sha256(64, 'b'), md5(32, 'c');
  const std::string md5Reason = "an MD5, which the store does not take", noHash = "no SHA-256 and no SHA-1";
  StoredURLVerdict record = kDefault;
  HashListFormat list(record);
  expectAll(list, {{"# x", {}, ""},
                   {" " + sha1 + " ", {sha1}, ""},
                   {std::string(64, 'B') + "  a file", {sha256}, ""},
                   {"\\" + sha1 + " *a\\nb", {sha1}, ""},
                   {"SHA256 (a) = b) = " + sha256, {sha256}, ""},
                   {md5 + "  file", {}, md5Reason},
                   {sha1 + "x", {}, noHash}});
  record.verdict.clear();
  ClamAVFormat clamav(record);
  const std::string badName =
      "a name that is empty, of more than 255 bytes, with control characters or not UTF-8";
  expectAll(clamav, {{sha1 + ":*:Win.X:73", {sha1}, ""},
                     {md5 + ":1:X", {}, md5Reason},
                     {sha256 + ":1:", {}, badName},
                     {sha256 + ":1:a\tb", {}, badName},
                     {sha256, {}, "not HASH:SIZE:NAME"},
                     {sha256 + ":x:N", {}, "a size that is neither a number nor \"*\""},
                     {"x:1:N", {}, noHash}});
  const auto parsed = [&](const std::string& line) { return clamav.parse(line).entries.at(0).second; };
  EXPECT_EQ(parsed(sha1 + ":1:Win.X:73:80").verdict + *parsed(sha1 + ":1:Win.X").infectionName,
            "maliciousWin.X");
  EXPECT_EQ(parsed(sha1 + ":1:PUA.Y").verdict, "pu");
}

TEST(VerdictImport, DpkgsDatabaseSaysWhichFilesBelongToInstalledPackages) {
  const std::string sum(32, '1');
  const auto [packages, unfinished] = packageStates(
      "Package: gone\nStatus: deinstall ok config-files\n\n"
      "Package: lib\nStatus: hold ok installed\nArchitecture: amd64\n"
      "Multi-Arch: same\nConffiles:\n /etc/a b " +
      sum + "\n /etc/old " + sum + " obsolete\nDescription: x\n /etc/c " + sum +
      "\n\nPackage: ../x\nStatus: install ok installed\n\nPackage: half\nStatus: install ok "
      "half-configured\n\n"
      "Package: man\nStatus: install ok triggers-pending\n");
  ASSERT_EQ(packages.size(), 2u);
  EXPECT_EQ(packages[0].filesName, "lib:amd64");
  ASSERT_EQ(packages[0].configuration.size(), 1u);
  EXPECT_EQ(packages[0].configuration[0].path, "/etc/a b");
  EXPECT_EQ(packages[1].filesName, "man");
  EXPECT_EQ(unfinished, std::vector<std::string>{"half (half-configured)"});
  EXPECT_EQ(recordedFile(sum + "  usr/bin/a b")->path, "/usr/bin/a b");
  for (const std::string& line : {sum, sum + " x", sum.substr(1) + "g  x", sum + "  "})
    EXPECT_FALSE(recordedFile(line)) << line;
  const Diversions diversions("/bin/sh\n/bin/sh.distrib\ndash\n/x\n");
  EXPECT_EQ(diversions.placeOf("/bin/sh", "bash"), "/bin/sh.distrib");
  EXPECT_EQ(diversions.placeOf("/bin/sh", "dash"), "/bin/sh");
}

TEST(VerdictImport, TheProgramImportsAnInstalledSystemAndWhatItExportsIsTheSameAgain) {
  const ScratchFolder folder;
  const auto qmverdicts = [&](int status, const std::string& store, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {QM_QMVERDICTS, "--store", folder.path(store)});
    const CommandResult result = runCommand(arguments);
    EXPECT_EQ(result.exitStatus, status) << result.output;
    return result.output;
  };
  const std::string sumOfHello = "5d41402abc4b2a76b9719d911017c592";  // md5sum of "hello"
  qmverdicts(2, "none", {"import", "--format", "debian", folder.path("root")});
  qmverdicts(2, "none", {"remove", "--source", "debian"});
  EXPECT_FALSE(std::filesystem::exists(folder.path("none"))) << "no store for a folder without packages";
  const std::string dpkg = "root/var/lib/dpkg/";
  folder.write(dpkg + "status", "Package: p\nStatus: install ok triggers-pending\nConffiles:\n /etc/p " +
                                    sumOfHello +
                                    "\n\nPackage: none\nStatus: install ok installed\n\n"
                                    "Package: odd\nStatus: install ok installed\n\n"
                                    "Package: half\nStatus: install ok unpacked\n");
  folder.write(dpkg + "diversions", "/usr/moved\n/usr/moved.real\nq\n");
  std::filesystem::create_directories(folder.path(dpkg + "info/odd.md5sums"));
  folder.write("root/etc/p", "hello");
  folder.write("root/usr/moved.real", "hello");
  std::string sums = "nonsense\n";
  for (const char* name : {"same", "changed", "missing", "link", "pipe", "moved"})
    sums += sumOfHello + "  usr/" + name + "\n";
  folder.write("root/var/lib/dpkg/info/p.md5sums", sums);
  const std::string same = folder.write("root/usr/same", "hello"), usr = folder.path("root/usr/");
  folder.write("root/usr/changed", "hellO");
  std::filesystem::create_symlink("same", usr + "link");
  ASSERT_EQ(::mkfifo((usr + "pipe").c_str(), 0600), 0);
  const std::vector<std::string> import = {"import", "--format", "debian", folder.path("root")};
  const std::string summary = qmverdicts(1, "s", import);
  EXPECT_THAT(
      summary,
      testing::AllOf(HasSubstr("7 files: 2 verdicts added, 0 replaced, 0 there already, 0 left as a person "
                               "gave them, 4 named again later; 4 files, 1 line, 3 packages skipped\n"),
                     HasSubstr("\nskipped, not as it was installed:\n  " + usr + "changed\n"),
                     HasSubstr("\nskipped, not a regular file:\n  " + usr + "link\n  " + usr + "pipe\n"),
                     HasSubstr("\nskipped, not there:\n  " + usr + "missing\n"),
                     HasSubstr("\nlines skipped, no sum and path:\n  "), HasSubstr("p.md5sums:1\n"),
                     HasSubstr("\npackages skipped, not wholly installed:\n  half (unpacked)\n"),
                     HasSubstr("\npackages skipped, without recorded sums:\n  none\n"),
                     HasSubstr("odd.md5sums: Is a directory\n")));
  EXPECT_THAT(qmverdicts(1, "s", import), HasSubstr("0 replaced, 2 there already"));
  EXPECT_THAT(qmverdicts(0, "s", {"show", same}),
              HasSubstr(" known_clean prevalence=0 ttl=86400 source=debian"));

  const std::string listed = folder.write("list", textFromKey(sha256("hello", 5)) + ":5:Bad.Hello\n");
  EXPECT_THAT(qmverdicts(0, "s", {"import", "--format", "clamav", listed}),
              HasSubstr("1 replaced (0 bad before and known_clean now, 1 known_clean before and bad now)"));
  EXPECT_THAT(qmverdicts(1, "s", import),
              HasSubstr("1 replaced (1 bad before and known_clean now, 0 known_clean before and bad now)"));
  EXPECT_THAT(
      qmverdicts(2, "s", {"import", "--format", "clamav", folder.write("daily.cvd", "ClamAV-VDB:x:1:\n")}),
      HasSubstr("sigtool --unpack"));

  const std::string odd = "Odd, \"name\" ";
  qmverdicts(0, "s", {"add", usr + "changed", "--verdict", "malicious", "--name", odd});
  qmverdicts(2, "s", {"add", same, "--verdict", "pu", "--name", "two\nlines"});
  qmverdicts(0, "s", {"add-url", "http://a.example/?x=1,2", "--verdict", "pu", "--category", "a"});
  for (const std::string kind : {"", "-url"}) {
    const std::string csv = qmverdicts(0, "s", {"export" + kind});
    qmverdicts(0, "t", {"import" + kind, "--format", "csv", folder.write("csv", csv)});
    EXPECT_EQ(qmverdicts(0, "t", {"export" + kind}), csv);
  }
  EXPECT_EQ(qmverdicts(0, "t", {"count", "--by", "source"}),
            "SOURCE              SHA-256      SHA-1\ndebian                    1          1\n"
            "manual                    1          1\ntotal                     2          2\n");
  EXPECT_EQ(qmverdicts(0, "t", {"remove", "--source", "debian"}), "2 removed\n");
  EXPECT_EQ(qmverdicts(0, "t", {"remove", usr + "changed"}), "2 removed\n");
  const auto store = VerdictStore::open(folder.path("s"), VerdictStore::Access::readWrite);
  ASSERT_TRUE(store->add({{sha256("hello", 5), {"undetected", {}, 0, 60, kVerdictSourceAnalysis, 1}}}));
  EXPECT_THAT(qmverdicts(0, "s", {"show", same}), HasSubstr(" known_clean "))
      << "the record that is answered";
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
  for (std::size_t i = 1; i <= ImportLedger::kBatchSize; ++i)
    text += "0.0.0.0 h" + std::to_string(i) + ".example\r\n";
  text += std::string(ImportRun::kMaximumLineLength + 1, 'x') + "\nbad\n0.0.0.0 last.example";
  for (const bool isLocked : {true, false}) {
    sqlite3* other = nullptr;
    sqlite3_open(path.c_str(), &other);
    HostsFormat format(kDefault);
    std::ostringstream screen, summary;
    qmr::ProgressLine progress(screen, 0);
    ImportLedger ledger(*store, progress, "line", [] { return ImportLedger::Clock::time_point(); });
    ImportRun run(ledger, format);
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
    ledger.conclude(summary);
    EXPECT_EQ(failure.has_value(), isLocked);
    EXPECT_EQ(store->countURLs(), (VerdictStore::Counts{{"unwanted", isLocked ? 50000u : 50001u}}));
    EXPECT_EQ(store->findURL({"h3.example"})->second, manual);
    EXPECT_EQ(summary.str(),
              isLocked
                  ? "50003 lines: 49999 verdicts added, 0 replaced, 0 there already, 1 left as a person "
                    "gave them; 2 lines skipped\nskipped, does not begin with an address: lines 2-3\n"
                  : "50006 lines: 1 verdict added, 0 replaced, 49999 there already, 1 left as a person gave "
                    "them; 4 lines skipped\nskipped, does not begin with an address: lines 2-3, 50005\n"
                    "skipped, longer than 64 KiB: line 50004\n");
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
  EXPECT_EQ(qmverdicts(0, {"count-url"}),
            "VERDICT                URLS\nmalicious                 2\ntotal                     2\n");
  for (const std::string source : {"manual", "analysis"})
    qmverdicts(2, {"import-url", "--format", "hosts", "--verdict", "pu", "--source", source, list});
  qmverdicts(2, {"remove-url"});
  qmverdicts(2, {"add-url", "a.example", "--verdict", "pu", "--category", "two words"});
  EXPECT_THAT(qmverdicts(2, {"nonsense"}), testing::StartsWith("qmverdicts: \"nonsense\" is no command\n"));
  qmverdicts(2, {"add-url", "evil.example", "not a host", "--verdict", "pu"});
  EXPECT_EQ(qmverdicts(1, {"remove-url", "http://evil.example/other"}), "0 removed\n");

  const std::pair<const char*, const char*> redirected[] = {
      {"count-url >/dev/full", "qmverdicts: the output cannot be written: No space left on device\n"},
      {"export-url >&-", "qmverdicts: the output cannot be written: standard output is closed\n"},
      {"import-url --format csv - <&-", "qmverdicts: standard input is closed\n"}};
  for (const auto& [command, output] : redirected) {
    const CommandResult result = runCommand(
        {"bash", "-c", QM_QMVERDICTS " --store " + folder.path("s.sqlite") + " " + std::string(command)});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.output, output);
  }

  // An import that waits for more lines, and a removal that waits for its turn, end at Ctrl-C with a true
  // summary.
  qmverdicts(1, {"import-url", "--format", "hosts", "--verdict", "pu", "--source", "l", list});
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(folder.path("s.sqlite").c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  const std::pair<std::vector<std::string>, const char*> commands[] = {
      {{"import-url", "--format", "csv", "--verdict", "pu", "-"}, "0 lines: 0 verdicts added"},
      {{"remove-url", "--source", "l"}, "1 removed\n"}};
  for (auto [arguments, summary] : commands) {
    arguments.insert(arguments.begin(), {QM_QMVERDICTS, "--store", folder.path("s.sqlite")});
    ChildProcess running(arguments, true);
    while (!testing::Value(
        runCommand({"grep", "SigCgt", "/proc/" + std::to_string(running.pid()) + "/status"}).output,
        testing::MatchesRegex(".*[2367abef]\n"))) {  // until it handles SIGINT
    }
    ::kill(running.pid(), SIGINT);
    if (arguments.back() == "l") sqlite3_close(other);
    EXPECT_THAT(running.readToEnd(), HasSubstr(summary));
    EXPECT_EQ(WTERMSIG(running.wait()), SIGINT);
  }
}

// The other end of a terminal that a program writes to.
class Terminal {
 public:
  Terminal() : control_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    const winsize size{.ws_row = 24, .ws_col = 200, .ws_xpixel = 0, .ws_ypixel = 0};
    if (::grantpt(control_.get()) != 0 || ::unlockpt(control_.get()) != 0 ||
        ::ioctl(control_.get(), TIOCSWINSZ, &size) != 0)
      throw std::runtime_error("no terminal");
  }
  std::string path() const { return ::ptsname(control_.get()); }
  // What is written, until it holds the text or the program is gone.
  std::string readUntil(const std::string& text) const {
    std::string read;
    for (char c = 0; read.find(text) == std::string::npos && ::read(control_.get(), &c, 1) == 1;) read += c;
    return read;
  }

 private:
  const FileDescriptor control_;
};

TEST(VerdictImport, WhatTheTerminalSaysIsInTheStoreSurvivesAKillAndIsThereBeforeAQuietPipeEnds) {
  const ScratchFolder folder;
  const Terminal terminal;
  ::setenv("TERM", "xterm", 1);
  ChildProcess import(
      {QM_QMVERDICTS, "--store", folder.path("s"), "import-url", "--format", "hosts", "--verdict", "pu", "-"},
      true, terminal.path());
  import.write("0.0.0.0 a.example\n0.0.0.0 b.example\n0.0.0.0 half");
  EXPECT_THAT(terminal.readUntil(" 2 verdicts stored"),
              testing::ContainsRegex("2 lines, [0-9]+ a second, 2 verdicts"));
  import.end(SIGKILL);
  const auto store = VerdictStore::open(folder.path("s"), VerdictStore::Access::readWrite);
  EXPECT_EQ(store->countURLs(), (VerdictStore::Counts{{"pu", 2}}));
}

}  // namespace
}  // namespace qm::qmverdicts
