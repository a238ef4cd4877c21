#include "companions/verdict_store.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <thread>
#include <tuple>

#include "companions/sqlite_database.hpp"
#include "companions/verdict_records.hpp"
#include "companions/verdict_store_file.hpp"
#include "foundation/strings.hpp"

namespace qm {

using namespace verdict_store_file;
using namespace verdict_records;

namespace {

constexpr std::size_t kMaximumTextLength = 255;
// The cache (KiB when negative) holds what a large import changes; the log beside the file does not stay
// larger than that after one.
constexpr const char* kWriterPragmas =
    "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA cache_size = -65536; "
    "PRAGMA journal_size_limit = 16777216";

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

template <class Hash>
std::optional<Hash> hashFromHex(std::string_view text) {
  Hash hash{};
  if (text.size() != 2 * hash.size()) return std::nullopt;
  for (std::size_t i = 0; i < hash.size(); ++i) {
    const int high = hexDigit(text[2 * i]), low = hexDigit(text[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    hash[i] = static_cast<std::uint8_t>(high * 16 + low);
  }
  return hash;
}

}  // namespace

bool isSafetyVerdictValue(std::string_view text) {
  constexpr std::array<std::string_view, 6> values = {
      SVKSkyvaultSafetyVerdictValueKnownClean, SVKSkyvaultSafetyVerdictValueUndetected,
      SVKSkyvaultSafetyVerdictValuePU,         SVKSkyvaultSafetyVerdictValueUnwanted,
      SVKSkyvaultSafetyVerdictValueMalicious,  SVKSkyvaultSafetyVerdictValueUnknown};
  return std::find(values.begin(), values.end(), text) != values.end();
}

std::optional<SHA256Value> sha256FromHex(std::string_view text) {
  return hashFromHex<SHA256Value>(text);
}

std::optional<SHA1Value> sha1FromHex(std::string_view text) {
  return hashFromHex<SHA1Value>(text);
}

bool isRecordText(std::string_view text) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
  return text.size() <= kMaximumTextLength && isValidUTF8(text) &&
         std::none_of(text.begin(), text.end(), isControl);
}

namespace {

// A removal goes through a table in stretches of so many rows, each a transaction of a few hundredths of a
// second.
constexpr std::int64_t kStretchRows = 20'000;
constexpr std::chrono::milliseconds kStretchPause{10};

// How far a removal has come in its table.
struct RemovedStretch {
  std::string end;  // the last key of the stretch
  std::int64_t rows = 0;
  std::size_t removed = 0;
};

}  // namespace

// Reading and writing have a connection each, so that a lookup never waits for a transaction: a reader in
// write-ahead mode sees the last committed state.
struct VerdictStore::Reader {
  bool open(const std::string& path, int access, std::chrono::milliseconds busyTimeout, ErrorPtr* error);
  // SQLITE_NOTFOUND as long as the store is of a version without records of the kind; somebody else may
  // change that.
  int prepareFor(VerdictKind kind);
  ReadStatements& of(VerdictKind kind) { return statements.at(indexOf(kind)); }

  std::mutex mutex;
  SQLiteDatabase database;
  std::array<ReadStatements, kKinds> statements;
};

struct VerdictStore::Writer {
  bool open(const std::string& path, bool exists, std::chrono::milliseconds busyTimeout, ErrorPtr* error);
  int prepare();
  WriteStatements& of(VerdictKind kind) { return statements.at(indexOf(kind)); }

  template <class Key>
  int put(const Key& key, const typename Table<Key>::Record& record) {
    return putRow(of(Table<Key>::kind).put, key, record);
  }
  template <class Key>
  int find(const Key& key, typename Table<Key>::Record& record) {
    return findRow(of(Table<Key>::kind).find, key, record);
  }
  template <class Key>
  int importOne(const Key& key, const typename Table<Key>::Record& record, ImportOutcome& outcome);

  // Removes what the source brought of the rows behind the last stretch.
  int removeStretch(VerdictKind kind, const std::string& source, RemovedStretch& stretch);

  // Runs the work inside a transaction that takes the write lock first. The work returns SQLITE_DONE to
  // commit.
  template <class Work>
  int transaction(const Work& work) {
    int status = database.execute("BEGIN IMMEDIATE");
    if (status == SQLITE_OK) status = work(*this);
    if (status == SQLITE_DONE) status = database.execute("COMMIT");
    if (status == SQLITE_OK) return SQLITE_OK;
    failure = database.failure(status);
    database.execute("ROLLBACK");  // fails harmlessly when none was begun
    return status;
  }

  std::mutex mutex;
  SQLiteDatabase database;
  std::array<WriteStatements, kKinds> statements;
  SQLiteFailure failure;  // of the transaction that failed
};

bool VerdictStore::Reader::open(const std::string& path, int access, std::chrono::milliseconds busyTimeout,
                                ErrorPtr* error) {
  int status = openConnection(database, path, access, busyTimeout);
  if (status != SQLITE_OK) {
    failWith(error, database.failure(status), path);
    return false;
  }
  Identity identity;
  if (!checkIdentity(database, path, identity, error)) return false;
  for (const VerdictKind kind : kAllKinds) {
    status = prepareFor(kind);
    if (status == SQLITE_OK || status == SQLITE_NOTFOUND) continue;
    failWith(error, database.failure(withoutTable(status)), path);
    return false;
  }
  return true;
}

int VerdictStore::Reader::prepareFor(VerdictKind kind) {
  if (of(kind).countSources) return SQLITE_OK;
  std::int64_t version = 0;
  if (const int status = database.queryInteger("PRAGMA user_version", version); status != SQLITE_OK)
    return status;
  if (version < firstVersionWith(kind)) return SQLITE_NOTFOUND;
  return verdict_records::prepare(database, kind, of(kind));
}

int VerdictStore::Writer::prepare() {
  for (const VerdictKind kind : kAllKinds)
    if (const int status = verdict_records::prepare(database, kind, of(kind)); status != SQLITE_OK)
      return status;
  return SQLITE_OK;
}

bool VerdictStore::Writer::open(const std::string& path, bool exists, std::chrono::milliseconds busyTimeout,
                                ErrorPtr* error) {
  int status = openConnection(database, path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, busyTimeout);
  if (status != SQLITE_OK) {
    failWith(error, database.failure(status), path);
    return false;
  }
  Identity identity;
  if (!checkIdentity(database, path, identity, error)) return false;
  if (!exists) makeReadableForAll(path);
  // Only now is anything written: first the mode, which the file keeps, then what the schema lacks.
  status = database.execute(kWriterPragmas);
  if (status != SQLITE_OK) {
    failWith(error, database.failure(status), path);
    return false;
  }
  if (!identity.isCurrent() && !upgrade(database, path, error)) return false;
  status = prepare();
  if (status == SQLITE_OK) return true;
  failWith(error, database.failure(withoutTable(status)), path);
  return false;
}

VerdictStore::VerdictStore(std::string path, std::unique_ptr<Reader> reader, std::unique_ptr<Writer> writer)
    : path_(std::move(path)), writer_(std::move(writer)), reader_(std::move(reader)) {}

VerdictStore::~VerdictStore() = default;

std::unique_ptr<VerdictStore> VerdictStore::open(const std::string& path, Access access, ErrorPtr* error,
                                                 std::chrono::milliseconds busyTimeout) {
  bool exists = false;
  if (!checkPlace(path, access == Access::readWrite, exists, error)) return nullptr;
  const bool isToBeChanged = access == Access::change || access == Access::readWrite;
  auto writer = isToBeChanged ? std::make_unique<Writer>() : nullptr;
  if (writer != nullptr && !writer->open(path, exists, busyTimeout, error)) return nullptr;
  ErrorPtr failure;
  auto reader = std::make_unique<Reader>();
  bool isOpen = reader->open(path, SQLITE_OPEN_READONLY, busyTimeout, &failure);
  if (!isOpen && access == Access::look && mayBeReadAlone(path)) {
    reader = std::make_unique<Reader>();
    isOpen = reader->open(unlockedURI(path), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, busyTimeout, nullptr);
  }
  if (!isOpen) {
    setError(error, failure);
    return nullptr;
  }
  return std::unique_ptr<VerdictStore>(new VerdictStore(path, std::move(reader), std::move(writer)));
}

template <class Hash>
std::optional<StoredVerdict> VerdictStore::findHash(const Hash& hash, ErrorPtr* error) {
  constexpr VerdictKind kKind = Table<Hash>::kind;
  const std::lock_guard lock(reader_->mutex);
  int status = reader_->prepareFor(kKind);
  if (status == SQLITE_NOTFOUND) return std::nullopt;
  StoredVerdict record;
  if (status == SQLITE_OK) status = findRow(reader_->of(kKind).find, hash, record);
  if (status == SQLITE_ROW) return record;
  if (status != SQLITE_DONE) failWith(error, reader_->database.failure(withoutTable(status)), path_);
  return std::nullopt;
}

std::optional<StoredVerdict> VerdictStore::find(const SHA256Value& sha256, ErrorPtr* error) {
  return findHash(sha256, error);
}

std::optional<StoredVerdict> VerdictStore::find(const SHA1Value& sha1, ErrorPtr* error) {
  return findHash(sha1, error);
}

std::optional<VerdictStore::FileEntry> VerdictStore::findFile(const std::optional<SHA256Value>& sha256,
                                                              const std::optional<SHA1Value>& sha1,
                                                              ErrorPtr* error) {
  ErrorPtr failure;
  std::optional<FileEntry> found;
  const auto look = [&](const auto& hash) {
    if (!hash || failure != nullptr || (found && found->second.source != kVerdictSourceAnalysis)) return;
    const std::optional<StoredVerdict> record = find(*hash, &failure);
    if (record && (!found || record->source != kVerdictSourceAnalysis)) found = FileEntry(*hash, *record);
  };
  look(sha256);
  look(sha1);
  if (failure == nullptr) return found;
  setError(error, failure);
  return std::nullopt;
}

std::optional<VerdictStore::URLEntry> VerdictStore::findURL(const std::vector<std::string>& keys,
                                                            ErrorPtr* error) {
  const std::lock_guard lock(reader_->mutex);
  int status = reader_->prepareFor(VerdictKind::url);
  if (status == SQLITE_NOTFOUND) return std::nullopt;
  for (auto key = keys.begin(); key != keys.end() && (status == SQLITE_OK || status == SQLITE_DONE); ++key) {
    StoredURLVerdict record;
    status = findRow(reader_->of(VerdictKind::url).find, *key, record);
    if (status == SQLITE_ROW) return URLEntry(*key, std::move(record));
  }
  if (status != SQLITE_OK && status != SQLITE_DONE)
    failWith(error, reader_->database.failure(withoutTable(status)), path_);
  return std::nullopt;
}

template <class Work>
bool VerdictStore::change(const Work& work, ErrorPtr* error) {
  if (writer_ == nullptr) {
    failWith(error, {SQLITE_READONLY, "opened for reading"}, path_);
    return false;
  }
  const std::lock_guard lock(writer_->mutex);
  if (writer_->transaction(work) == SQLITE_OK) return true;
  failWith(error, writer_->failure, path_);
  return false;
}

namespace {

template <class Entries>
bool checkAll(const Entries& entries, ErrorPtr* error) {
  return std::all_of(entries.begin(), entries.end(),
                     [error](const auto& entry) { return checkEntry(entry, error); });
}

}  // namespace

template <class Entries>
bool VerdictStore::putAll(const Entries& entries, ErrorPtr* error) {
  if (!checkAll(entries, error)) return false;
  return change(
      [&](Writer& writer) {
        for (const auto& [key, record] : entries)
          if (const int put = writer.put(key, record); put != SQLITE_DONE) return put;
        return SQLITE_DONE;
      },
      error);
}

bool VerdictStore::add(const std::vector<Entry>& entries, ErrorPtr* error) {
  return putAll(entries, error);
}

bool VerdictStore::addURLs(const std::vector<URLEntry>& entries, ErrorPtr* error) {
  return putAll(entries, error);
}

bool VerdictStore::addAll(const std::vector<VerdictEntry>& entries, ErrorPtr* error) {
  if (!checkAll(entries, error)) return false;
  return change(
      [&](Writer& writer) {
        for (const auto& [key, record] : entries) {
          const auto put = [&writer, &itsRecord = record](const auto& k) { return writer.put(k, itsRecord); };
          if (const int status = std::visit(put, key); status != SQLITE_DONE) return status;
        }
        return SQLITE_DONE;
      },
      error);
}

namespace {

bool isBad(const StoredVerdict& record) {
  return record.verdict == SVKSkyvaultSafetyVerdictValueMalicious ||
         record.verdict == SVKSkyvaultSafetyVerdictValueUnwanted ||
         record.verdict == SVKSkyvaultSafetyVerdictValuePU;
}

bool isClean(const StoredVerdict& record) {
  return record.verdict == SVKSkyvaultSafetyVerdictValueKnownClean;
}

void noteReversal(const StoredVerdict& before, const StoredVerdict& after,
                  VerdictStore::ImportOutcome& outcome) {
  if (isBad(before) && isClean(after)) ++outcome.badToClean;
  if (isClean(before) && isBad(after)) ++outcome.cleanToBad;
}

// In the order of the table a page is changed once for all of its rows. Of one key the last entry alone is
// left: one before it would be written only to be replaced.
std::vector<const VerdictEntry*> inOrderOfTable(const std::vector<VerdictEntry>& entries) {
  std::vector<const VerdictEntry*> ordered;
  ordered.reserve(entries.size());
  for (const VerdictEntry& entry : entries) ordered.push_back(&entry);
  std::sort(ordered.begin(), ordered.end(), [](const VerdictEntry* a, const VerdictEntry* b) {
    return std::tie(a->first, b) < std::tie(b->first, a);  // the last of a key first
  });
  const auto isSameKey = [](const VerdictEntry* a, const VerdictEntry* b) { return a->first == b->first; };
  ordered.erase(std::unique(ordered.begin(), ordered.end(), isSameKey), ordered.end());
  return ordered;
}

}  // namespace

template <class Key>
int VerdictStore::Writer::importOne(const Key& key, const typename Table<Key>::Record& record,
                                    ImportOutcome& outcome) {
  typename Table<Key>::Record present;
  const int there = find(key, present);
  if (there != SQLITE_ROW && there != SQLITE_DONE) return there;
  if (there == SQLITE_ROW && saySame(present, record)) {
    ++outcome.unchanged;
    return SQLITE_DONE;
  }
  if (there == SQLITE_ROW && present.source == kVerdictSourceManual) {
    ++outcome.kept;
    return SQLITE_DONE;
  }
  ++(there == SQLITE_ROW ? outcome.replaced : outcome.added);
  if (there == SQLITE_ROW) noteReversal(present, record, outcome);
  return put(key, record);
}

std::optional<VerdictStore::ImportOutcome> VerdictStore::importAll(const std::vector<VerdictEntry>& entries,
                                                                   ErrorPtr* error) {
  if (!checkAll(entries, error)) return std::nullopt;
  const std::vector<const VerdictEntry*> ordered = inOrderOfTable(entries);
  ImportOutcome outcome;
  outcome.repeated = entries.size() - ordered.size();
  const auto work = [&](Writer& writer) {
    for (const VerdictEntry* const entry : ordered) {
      const auto importOne = [&](const auto& key) { return writer.importOne(key, entry->second, outcome); };
      if (const int status = std::visit(importOne, entry->first); status != SQLITE_DONE) return status;
    }
    return SQLITE_DONE;
  };
  return change(work, error) ? std::optional(outcome) : std::nullopt;
}

std::optional<StoredVerdict> VerdictStore::remember(const SHA256Value& sha256, const SHA1Value& sha1,
                                                    const StoredVerdict& found, ErrorPtr* error) {
  if (!checkRecord(found, error)) return std::nullopt;
  StoredVerdict inForce = found;
  const auto work = [&](Writer& writer) {
    const auto isSpokenFor = [&](const auto& hash, int& status) {
      StoredVerdict present;
      status = writer.find(hash, present);
      if (status != SQLITE_ROW || present.source == found.source) return false;
      inForce = present;
      return true;
    };
    int there = SQLITE_DONE;
    if (isSpokenFor(sha256, there)) return SQLITE_DONE;
    if (there != SQLITE_ROW && there != SQLITE_DONE) return there;
    if (isSpokenFor(sha1, there)) return SQLITE_DONE;
    if (there != SQLITE_ROW && there != SQLITE_DONE) return there;
    const int put = writer.put(sha256, found);
    return put == SQLITE_DONE ? writer.put(sha1, found) : put;
  };
  return change(work, error) ? std::optional(inForce) : std::nullopt;
}

std::optional<std::size_t> VerdictStore::remove(const std::vector<VerdictKey>& keys, ErrorPtr* error) {
  std::size_t removed = 0;
  const auto work = [&](Writer& writer) {
    for (const VerdictKey& key : keys) {
      const auto removeOne = [&](const auto& k) {
        SQLiteStatement& statement = writer.of(Table<std::decay_t<decltype(k)>>::kind).remove;
        const SQLiteStatementUse use(statement);
        bindKey(statement, k);
        return statement.step();
      };
      if (const int status = std::visit(removeOne, key); status != SQLITE_DONE) return status;
      removed += static_cast<std::size_t>(writer.database.changes());
    }
    return SQLITE_DONE;
  };
  return change(work, error) ? std::optional(removed) : std::nullopt;
}

int VerdictStore::Writer::removeStretch(VerdictKind kind, const std::string& source,
                                        RemovedStretch& stretch) {
  WriteStatements& prepared = of(kind);
  const SQLiteStatementUse useOfEnd(prepared.stretch);
  bindStretchKey(prepared.stretch, 1, kind, stretch.end);
  prepared.stretch.bind(2, kStretchRows);
  if (const int status = prepared.stretch.step(); status != SQLITE_ROW) return status;
  stretch.rows = prepared.stretch.integer(1);
  if (stretch.rows == 0) return SQLITE_DONE;
  const std::string end = prepared.stretch.bytes(0);
  SQLiteStatement& removal = prepared.removeSource;
  const SQLiteStatementUse useOfRemoval(removal);
  removal.bind(1, std::string_view(source));
  bindStretchKey(removal, 2, kind, stretch.end);
  bindStretchKey(removal, 3, kind, end);
  if (const int status = removal.step(); status != SQLITE_DONE) return status;
  stretch.removed = static_cast<std::size_t>(database.changes());
  stretch.end = end;
  return SQLITE_DONE;
}

std::optional<std::size_t> VerdictStore::removeSource(const std::vector<VerdictKind>& kinds,
                                                      const std::string& source,
                                                      const RemovalObserver& observer, ErrorPtr* error) {
  std::uint64_t total = 0;
  for (const VerdictKind kind : kinds) {
    const std::optional<Counts> counts = observer ? count(kind, error) : Counts();
    if (!counts) return std::nullopt;
    for (const auto& [verdict, number] : *counts) total += number;
  }
  std::size_t removed = 0;
  std::uint64_t seen = 0;
  for (const VerdictKind kind : kinds) {
    RemovedStretch stretch;
    do {
      stretch.rows = 0;
      stretch.removed = 0;
      const auto work = [&](Writer& writer) { return writer.removeStretch(kind, source, stretch); };
      if (!change(work, error)) return std::nullopt;
      removed += stretch.removed;
      seen += static_cast<std::uint64_t>(stretch.rows);
      const double share =
          std::min(1.0, static_cast<double>(seen) / std::max(1.0, static_cast<double>(total)));
      if (observer && !observer(removed, share)) return removed;
      // A program that waits for the lock looks for it from time to time only.
      if (stretch.rows == kStretchRows) std::this_thread::sleep_for(kStretchPause);
    } while (stretch.rows == kStretchRows);
  }
  return removed;
}

std::optional<std::size_t> VerdictStore::removeFilesOfSource(const std::string& source, ErrorPtr* error,
                                                             const RemovalObserver& observer) {
  return removeSource({VerdictKind::sha256, VerdictKind::sha1}, source, observer, error);
}

std::optional<std::size_t> VerdictStore::removeURLsOfSource(const std::string& source, ErrorPtr* error,
                                                            const RemovalObserver& observer) {
  return removeSource({VerdictKind::url}, source, observer, error);
}

std::optional<VerdictStore::Counts> VerdictStore::countWith(SQLiteStatement ReadStatements::*statement,
                                                            VerdictKind kind, ErrorPtr* error) {
  const std::lock_guard lock(reader_->mutex);
  Counts counts;
  int status = reader_->prepareFor(kind);
  if (status == SQLITE_OK) status = countRows(reader_->of(kind).*statement, counts);
  if (status == SQLITE_DONE || status == SQLITE_NOTFOUND) return counts;
  failWith(error, reader_->database.failure(withoutTable(status)), path_);
  return std::nullopt;
}

std::optional<VerdictStore::Counts> VerdictStore::count(VerdictKind kind, ErrorPtr* error) {
  return countWith(&ReadStatements::count, kind, error);
}

std::optional<VerdictStore::Counts> VerdictStore::countSources(VerdictKind kind, ErrorPtr* error) {
  return countWith(&ReadStatements::countSources, kind, error);
}

bool VerdictStore::visit(VerdictKind kind, const std::string& source,
                         const std::function<bool(const VerdictEntry&)>& visitor, ErrorPtr* error) {
  const std::lock_guard lock(reader_->mutex);
  int status = reader_->prepareFor(kind);
  if (status == SQLITE_NOTFOUND) return true;
  SQLiteStatement statement;
  if (status == SQLITE_OK) status = prepareVisit(reader_->database, kind, statement);
  if (status == SQLITE_OK) {
    if (!source.empty()) statement.bind(1, std::string_view(source));
    do {
      status = statement.step();
    } while (status == SQLITE_ROW && visitor(readEntry(statement, kind)));
  }
  if (status == SQLITE_DONE || status == SQLITE_ROW) return true;
  failWith(error, reader_->database.failure(withoutTable(status)), path_);
  return false;
}

}  // namespace qm
