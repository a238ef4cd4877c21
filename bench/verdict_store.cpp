// What a large import and a lookup in the verdict store cost. The references, in the same run: bare SQLite
// that puts the same rows into a table of its own, whole batches at a time, and finds them again; and, for
// the file's size, the bytes of the facts alone. "of_reference" is the reference's time over ours: 1 would be
// a store that costs nothing beside SQLite. "worst_ms" is the longest lookup of another connection meanwhile.
#include "companions/verdict_store.hpp"

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using qm::VerdictEntry;
using qm::VerdictStore;

constexpr std::size_t kBatch = 50'000;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void require(bool isFine) {
  if (!isFine) std::abort();
}

class Folder {
 public:
  Folder() { require(::mkdtemp(path_.data()) != nullptr); }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string file(const char* name) const { return path_ + "/" + name; }

 private:
  std::string path_ = std::filesystem::temp_directory_path() / "qm-bench-XXXXXX";
};

qm::SHA256Value numbered(std::size_t number) {
  return qm::sha256(&number, sizeof number);
}

std::vector<VerdictEntry> batchFrom(std::size_t first) {
  std::vector<VerdictEntry> entries;
  for (std::size_t i = first; i < first + kBatch; ++i) {
    qm::StoredURLVerdict record;
    record.verdict = "malicious";
    record.infectionName = "Win.Trojan.Agent-" + std::to_string(i);
    record.ttl = qm::kDefaultVerdictTTL;
    record.source = "clamav";
    record.added = 1700000000;
    entries.emplace_back(numbered(i), std::move(record));
  }
  return entries;
}

// The reference: bare SQLite.
class Bare {
 public:
  explicit Bare(const std::string& path) {
    require(sqlite3_open(path.c_str(), &database_) == SQLITE_OK);
    run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA cache_size = -65536;"
        "CREATE TABLE t (k BLOB PRIMARY KEY, v, n, p, t, s, a) WITHOUT ROWID");
    prepare("INSERT INTO t VALUES (?1, 'malicious', ?2, 0, 86400, 'clamav', 1700000000)", &insert_);
    prepare("SELECT v, n, p, t, s, a FROM t WHERE k = ?1", &select_);
  }
  ~Bare() {
    sqlite3_finalize(insert_);
    sqlite3_finalize(select_);
    sqlite3_close(database_);
  }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  void put(std::vector<VerdictEntry> entries) {
    std::sort(entries.begin(), entries.end(),
              [](const VerdictEntry& a, const VerdictEntry& b) { return a.first < b.first; });
    run("BEGIN IMMEDIATE");
    for (const auto& [key, record] : entries) {
      const std::string& name = *record.infectionName;
      sqlite3_bind_text(insert_, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
      step(insert_, std::get<qm::SHA256Value>(key), SQLITE_DONE);
    }
    run("COMMIT");
  }
  void find(const qm::SHA256Value& key) { step(select_, key, SQLITE_ROW); }

 private:
  void run(const char* sql) { require(sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) == SQLITE_OK); }
  void prepare(const char* sql, sqlite3_stmt** statement) {
    require(sqlite3_prepare_v2(database_, sql, -1, statement, nullptr) == SQLITE_OK);
  }
  static void step(sqlite3_stmt* statement, const qm::SHA256Value& key, int expected) {
    sqlite3_bind_blob(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    require(sqlite3_step(statement) == expected);
    sqlite3_reset(statement);
  }

  sqlite3* database_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* select_ = nullptr;
};

// Looks up again and again on a connection of its own until it goes; every lookup must succeed.
class Asker {
 public:
  explicit Asker(const std::string& path) : thread_([this, path] { ask(path); }) {}
  ~Asker() { stop(); }
  Asker(const Asker&) = delete;
  Asker& operator=(const Asker&) = delete;
  // Milliseconds.
  double stop() {
    isOver_ = true;
    if (thread_.joinable()) thread_.join();
    return worst_;
  }

 private:
  void ask(const std::string& path) {
    const auto store = VerdictStore::open(path, VerdictStore::Access::readOnly);
    require(store != nullptr);
    for (std::size_t i = 0; !isOver_; ++i) {
      qm::ErrorPtr error;
      const auto start = Clock::now();
      store->find(numbered(i % 1'000'000), &error);
      worst_ = std::max(worst_, 1000 * secondsSince(start));
      require(error == nullptr);
    }
  }

  std::atomic<bool> isOver_ = false;
  double worst_ = 0;
  std::thread thread_;
};

void importAndLookUp(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  const bool isAsked = state.range(1) != 0;
  double ours = 0, bares = 0, find = 0, miss = 0, bareFind = 0, factBytes = 0, worst = 0;
  const Folder folder;
  for ([[maybe_unused]] const auto _ : state) {
    const auto store = VerdictStore::open(folder.file("store"), VerdictStore::Access::readWrite);
    Bare bare(folder.file("bare"));
    {
      std::unique_ptr<Asker> asker = isAsked ? std::make_unique<Asker>(folder.file("store")) : nullptr;
      for (std::size_t first = 0; first < count; first += kBatch) {
        std::vector<VerdictEntry> batch = batchFrom(first);
        for (const auto& [key, record] : batch)
          factBytes += static_cast<double>(32 + 9 + record.infectionName->size() + 1 + 4 + 6 + 8);
        auto start = Clock::now();
        bare.put(batch);
        bares += secondsSince(start);
        start = Clock::now();
        require(store->importAll(batch).has_value());
        ours += secondsSince(start);
      }
      if (asker != nullptr) worst = asker->stop();
    }
    for (std::size_t i = 0; i < count; i += 10) {  // spread over the whole file
      const qm::SHA256Value key = numbered(i);
      auto start = Clock::now();
      bare.find(key);
      bareFind += secondsSince(start);
      start = Clock::now();
      require(store->find(key).has_value());
      find += secondsSince(start);
      const qm::SHA256Value other = numbered(count + i);
      start = Clock::now();
      require(!store->find(other).has_value());
      miss += secondsSince(start);
    }
    state.SetIterationTime(ours);
  }
  const double entries = static_cast<double>(count);
  state.counters["entries_per_s"] = entries / ours;
  state.counters["import_of_reference"] = bares / ours;
  state.counters["lookup_us"] = 1e6 * find / (entries / 10);
  state.counters["miss_us"] = 1e6 * miss / (entries / 10);
  state.counters["lookup_of_reference"] = bareFind / find;
  state.counters["file_MB"] = static_cast<double>(std::filesystem::file_size(folder.file("store"))) / 1e6;
  state.counters["facts_of_file"] =
      factBytes / static_cast<double>(std::filesystem::file_size(folder.file("store")));
  if (isAsked) state.counters["worst_ms"] = worst;
}

BENCHMARK(importAndLookUp)
    ->Args({1'000'000, 0})
    ->Args({1'000'000, 1})
    ->ArgNames({"entries", "asked"})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
