#include "companions/live_verdict_store.hpp"

#include <sqlite3.h>
#include <sys/resource.h>

#include "support/testing.hpp"
#include "tests/companions/samples.hpp"

namespace {

using Access = VerdictStore::Access;

const StoredVerdict kMalicious{"malicious", "Trojan.Test", 3, 3600, kVerdictSourceManual, 1700000000};
const StoredURLVerdict kHost{{"unwanted", std::nullopt, 0, 60, kVerdictSourceManual, 1700000000},
                             {{"adult", true}, {"news", false}}};
const StoredVerdict kAnalysed{"pu", std::nullopt, 0, 60, kVerdictSourceAnalysis, 1700000001};

SHA256Value numbered(unsigned number) {
  return hashOf("sample " + std::to_string(number));
}
SHA1Value numberedSHA1(unsigned number) {
  const std::string text = "sample " + std::to_string(number);
  return sha1(text.data(), text.size());
}
std::vector<VerdictStore::Entry> entriesFrom(unsigned first, unsigned count) {
  std::vector<VerdictStore::Entry> entries;
  for (unsigned i = 0; i < count; ++i) entries.emplace_back(numbered(first + i), kMalicious);
  return entries;
}

class VerdictStoreTest : public testing::Test {
 protected:
  std::unique_ptr<VerdictStore> open(Access access = Access::readWrite) {
    return VerdictStore::open(path_, access, &error_);
  }
  // Of the last error, which is taken.
  VerdictStoreError code() {
    const ErrorPtr error = std::exchange(error_, nullptr);
    return error == nullptr ? VerdictStoreError{} : static_cast<VerdictStoreError>(error->code());
  }
  // Runs SQL on the file behind the store's back; what it began ends with the connection.
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> tamper(const char* sql) const {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(path_.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql, nullptr, nullptr, nullptr), SQLITE_OK);
    return {database, sqlite3_close};
  }

  ScratchFolder folder_;
  const std::string path_ = folder_.path("qxmac/var/verdicts.sqlite");
  ErrorPtr error_;
};

TEST_F(VerdictStoreTest, KeepsWholeBatchesAcrossReopeningAndWhatAPersonSaid) {
  const StoredVerdict clean{"known_clean", std::nullopt, 255, UINT32_MAX, kVerdictSourceManual, -1};
  {
    const auto store = open();
    ASSERT_TRUE(store->add({{numbered(1), kMalicious}, {numbered(2), kMalicious}}));
    ASSERT_TRUE(store->add({{numbered(2), clean}}));
    StoredVerdict bad = kMalicious;
    bad.infectionName = "\xff\xfe";
    EXPECT_FALSE(store->add({{numbered(3), kMalicious}, {numbered(4), bad}}, &error_));
    EXPECT_EQ(code(), VerdictStoreError::badRecord);
    EXPECT_EQ(store->remember(numbered(1), numberedSHA1(1), kAnalysed), kMalicious);
  }
  const auto store = open(Access::readOnly);
  EXPECT_EQ(store->find(numbered(1)), kMalicious);
  EXPECT_EQ(store->find(numbered(2)), clean);
  EXPECT_EQ(store->find(numbered(3), &error_), std::nullopt);
  EXPECT_EQ(error_, nullptr) << "a hash that is not there is no error";
}

TEST_F(VerdictStoreTest, AnOlderStoreIsReadAsItIsAndKeepsItsContentWhenItIsBroughtUpToDate) {
  for (const int version : {1, 2}) {
    ASSERT_TRUE(open()->add(entriesFrom(1, 100)));
    ASSERT_TRUE(open()->addURLs({{"old.example", kHost}}));
    tamper(version == 1
               ? "DROP TABLE sha1_verdicts; DROP TABLE url_verdicts; PRAGMA user_version = 1"
               : "DROP TABLE sha1_verdicts; UPDATE sha256_verdicts SET infection_name = 'a' || char(10); "
                 "PRAGMA user_version = 2");
    StoredVerdict old = kMalicious;
    if (version == 2) old.infectionName = "a\n";  // was taken then
    const std::string before = contentOf(path_);
    const auto reader = open(Access::readOnly);
    ASSERT_NE(reader, nullptr) << error_->localizedDescription();
    EXPECT_EQ(reader->find(numberedSHA1(1), &error_), std::nullopt);
    EXPECT_EQ(reader->count(VerdictKind::sha1, &error_), VerdictStore::Counts());
    EXPECT_EQ(reader->findURL({"old.example"}, &error_).has_value(), version == 2);
    EXPECT_EQ(error_, nullptr);
    EXPECT_EQ(contentOf(path_), before);

    const auto upgraded = open();
    ASSERT_TRUE(upgraded->addAll({{"host.example", kHost}, {numberedSHA1(1), {kMalicious, {}}}}));
    EXPECT_EQ(upgraded->count(), (VerdictStore::Counts{{"malicious", 100}}));
    EXPECT_EQ(upgraded->find(numbered(100)), old);
    EXPECT_EQ(upgraded->findURL({"old.example"}).has_value(), version == 2);
    EXPECT_EQ(reader->findURL({"x.host.example", "host.example"}),
              VerdictStore::URLEntry("host.example", kHost))
        << "a reader that was there before sees it";
    EXPECT_EQ(reader->find(numberedSHA1(1)), kMalicious);
    std::filesystem::remove_all(folder_.path("qxmac"));
  }
}

TEST_F(VerdictStoreTest, AnImportAgainChangesNothingNeverAPersonsWordAndIsRemovedByItsName) {
  const auto store = open();
  StoredURLVerdict imported = kHost, again = kHost, bad = kHost, file{kMalicious, {}};
  imported.source = again.source = file.source = "list";
  again.added = file.added = 1800000000;
  bad.categories[0].name = "two words";
  ASSERT_TRUE(store->addAll({{"a.example", kHost}, {numbered(1), {kMalicious, {}}}}));
  const auto import = [&](const std::vector<VerdictEntry>& entries) {
    const auto outcome = store->importAll(entries, &error_);
    if (!outcome) return std::string("failed");
    return std::to_string(outcome->added) + " " + std::to_string(outcome->replaced) + " " +
           std::to_string(outcome->unchanged) + " " + std::to_string(outcome->kept) + " " +
           std::to_string(outcome->repeated);
  };
  EXPECT_EQ(import({{"c.example", imported},
                    {"a.example", imported},
                    {"b.example", kHost},
                    {numbered(1), file},
                    {numbered(2), file},
                    {numberedSHA1(2), file}}),
            "4 0 0 2 0");
  EXPECT_EQ(import({{"a.example", kHost}, {"c.example", again}, {numbered(2), file}}), "0 0 3 0 0");
  EXPECT_EQ(store->findURL({"c.example", "a.example"})->second, imported) << "first key, and first time";
  again.ttl = 5;
  for (const char* outcome : {"0 1 0 0 1", "0 0 1 0 1"}) {  // a list that names it twice, and once more
    EXPECT_EQ(import({{"c.example", imported}, {"c.example", again}}), outcome);
    EXPECT_EQ(store->findURL({"c.example"})->second, again);
  }
  EXPECT_EQ(import({{"d.example", imported}, {"e.example", bad}}), "failed");
  EXPECT_EQ(code(), VerdictStoreError::badRecord);
  EXPECT_EQ(store->countSources(VerdictKind::url), (VerdictStore::Counts{{"list", 1}, {"manual", 2}}));

  std::vector<VerdictKey> listed;
  EXPECT_TRUE(store->visit(VerdictKind::sha256, "list", [&](const VerdictEntry& entry) {
    listed.push_back(entry.first);
    return entry.second == file;
  }));
  EXPECT_EQ(listed, std::vector<VerdictKey>{numbered(2)});
  EXPECT_EQ(store->removeFilesOfSource("list"), 2u);
  EXPECT_EQ(store->removeURLsOfSource("list"), 1u);
  EXPECT_EQ(store->remove({"a.example", "c.example", numbered(1)}), 2u);
  EXPECT_EQ(store->countURLs(), (VerdictStore::Counts{{"unwanted", 1}}));
  tamper("UPDATE url_verdicts SET categories = 'not, categories', ttl = 7");
  EXPECT_EQ(store->findURL({"b.example"})->second.categories, std::vector<SVKSkyvaultCategory>());
}

TEST_F(VerdictStoreTest, RefusesFilesThatAreNoSoundStoreOfThisVersionAndLeavesThemAlone) {
  const auto expectRefused = [&](VerdictStoreError expected) {
    const std::string before = contentOf(path_);
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(code(), expected);
    EXPECT_EQ(contentOf(path_), before);
    std::filesystem::remove(path_);
  };
  folder_.write("qxmac/var/verdicts.sqlite", "");
  EXPECT_EQ(open(Access::readOnly)->count(), VerdictStore::Counts()) << "an empty file is an empty store";
  ASSERT_NE(open(), nullptr);
  tamper("PRAGMA user_version = 99; CREATE TABLE md5_verdicts (x)");
  expectRefused(VerdictStoreError::newerVersion);
  ASSERT_NE(open(), nullptr);
  tamper("PRAGMA user_version = -1");
  expectRefused(VerdictStoreError::notAStore);
  folder_.write("qxmac/var/verdicts.sqlite", "A letter to a friend, long enough to be no empty file at all.");
  expectRefused(VerdictStoreError::notAStore);
  tamper("CREATE TABLE bookmarks (url TEXT)");
  expectRefused(VerdictStoreError::notAStore);

  std::filesystem::remove_all(folder_.path("qxmac"));
  ASSERT_TRUE(open()->add(entriesFrom(0, 2000)));
  std::fstream(path_, std::ios::in | std::ios::out | std::ios::binary).seekp(4096)
      << std::string(std::filesystem::file_size(path_) - 4096, 'Z');
  const auto damaged = open();
  ASSERT_NE(damaged, nullptr) << "the head of the file is sound";
  EXPECT_EQ(damaged->find(numbered(1), &error_), std::nullopt);
  EXPECT_EQ(code(), VerdictStoreError::damaged);
}

TEST_F(VerdictStoreTest, WhenTheDiskTakesNoMoreNothingIsChangedAndLookupsGoOn) {
  const auto store = open();
  ASSERT_TRUE(store->add(entriesFrom(1, 1)));
  // A limit on the size of files stands in for the full disk.
  signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit tight{64 * 1024, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
  EXPECT_FALSE(store->add(entriesFrom(100, 5000)));
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(store->find(numbered(1)), kMalicious);
  EXPECT_EQ(store->find(numbered(100)), std::nullopt);
  EXPECT_TRUE(store->add(entriesFrom(100, 5000))) << "with room again it goes on";
}

TEST_F(VerdictStoreTest, LookupsDuringAnImportAllSucceedAndSeeWholeBatches) {
  ASSERT_NE(open(), nullptr);
  const auto import = std::async(std::launch::async, [this] {
    const auto store = VerdictStore::open(path_, Access::readWrite);
    for (unsigned first = 0; first < 22'000; first += 2'000) {
      std::vector<VerdictEntry> entries;
      for (unsigned i = first; i < first + 2'000; ++i)
        entries.emplace_back(numbered(i), StoredURLVerdict{kMalicious, {}});
      if (!store->importAll(entries)) return false;
    }
    return true;
  });
  const auto reader = open(Access::readOnly);
  bool isOver = false;
  for (unsigned first = 0; !isOver; first = (first + 2'000) % 22'000) {
    isOver = import.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    const bool isLastThere = reader->find(numbered(first + 1'999), &error_).has_value();
    ASSERT_EQ(error_, nullptr) << error_->localizedDescription();
    if (reader->find(numbered(first), &error_).has_value() < isLastThere) FAIL() << "half a batch";
  }
  EXPECT_EQ(reader->count(), (VerdictStore::Counts{{"malicious", 22'000}}));
  std::vector<std::size_t> steps;
  EXPECT_EQ(open()->removeFilesOfSource(kVerdictSourceManual, &error_,
                                        [&](std::size_t removed, double share) {
                                          EXPECT_NEAR(share, static_cast<double>(removed) / 22'000, 1e-9);
                                          if (steps.empty() || steps.back() != removed)
                                            steps.push_back(removed);
                                          EXPECT_EQ(reader->count()->size(), removed == 22'000 ? 0u : 1u);
                                          return true;
                                        }),
            22'000u);
  EXPECT_EQ(steps, (std::vector<std::size_t>{20'000, 22'000})) << "step by step, for others to see";
}

TEST_F(VerdictStoreTest, ALookupDoesNotWaitForAWriterAndAWriterThatWaitsTooLongSaysSo) {
  const auto store = VerdictStore::open(path_, Access::readWrite, nullptr, std::chrono::milliseconds(20));
  ASSERT_TRUE(store->add(entriesFrom(1, 1)));
  auto other = tamper("BEGIN IMMEDIATE; DELETE FROM sha256_verdicts");
  EXPECT_EQ(store->find(numbered(1)), kMalicious);
  EXPECT_FALSE(store->add(entriesFrom(2, 1), &error_));
  EXPECT_EQ(code(), VerdictStoreError::busy);
  other.reset();
  EXPECT_TRUE(store->add(entriesFrom(2, 1)));
}

TEST_F(VerdictStoreTest, ADamagedFileIsOnlyReadAndComplainedOfOnceUntilAnotherTakesItsPlace) {
  const LogRecorder recorder;
  const auto complaints = [&] {
    const auto lines = recorder.lines();
    return std::count_if(lines.begin(), lines.end(), [](const LogLine& line) {
      return line.message.find("nswering without") != std::string::npos ||
             line.message.find("not be remembered") != std::string::npos ||
             line.message.ends_with("in use again");
    });
  };
  ASSERT_TRUE(open()->add(entriesFrom(0, 2000)));
  std::fstream(path_, std::ios::in | std::ios::out | std::ios::binary).seekp(4096 * 20)
      << std::string(std::filesystem::file_size(path_) - 4096 * 20, 'Z');
  static LiveVerdictStore::Clock::time_point theTime;
  LiveVerdictStore live(path_, [] { return theTime; });
  const auto find = [&](unsigned number) {
    std::optional<StoredVerdict> verdict;
    theTime += LiveVerdictStore::kRetryInterval;
    return live.find(numbered(number), verdict);
  };
  unsigned sound = 0, lost = 0;
  while (sound < 2000 && !find(sound)) ++sound;
  while (lost < 2000 && find(lost)) ++lost;
  ASSERT_LT(std::max(sound, lost), 2000u) << "some of each";
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(find(sound) && !find(lost));
  EXPECT_EQ(complaints(), 1);
  for (int i = 0; i < 5; ++i)
    EXPECT_TRUE(find(sound) && live.remember(numbered(9000), numberedSHA1(9000), kAnalysed) == kAnalysed);
  EXPECT_EQ(complaints(), 2) << "that it cannot be remembered";

  std::filesystem::remove_all(folder_.path("qxmac"));  // the next file may get its number
  EXPECT_TRUE(find(lost));
  EXPECT_EQ(complaints(), 3) << "in use again";
  live.close();
  live.remember(numbered(9000), numberedSHA1(9000), kAnalysed);
  EXPECT_EQ(open(Access::readOnly)->find(numbered(9000)), kAnalysed);
}

}  // namespace
