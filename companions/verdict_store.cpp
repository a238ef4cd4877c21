#include "companions/verdict_store.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <mutex>

#include "companions/sqlite_database.hpp"
#include "companions/url_categories.hpp"
#include "companions/url_key.hpp"
#include "companions/verdict_store_file.hpp"
#include "foundation/strings.hpp"

namespace qm {

using namespace verdict_store_file;

namespace {

constexpr std::size_t kMaximumTextLength = 255;

constexpr const char* kFindSQL =
    "SELECT verdict, infection_name, prevalence, ttl, source, added FROM sha256_verdicts WHERE sha256 = ?1";
constexpr const char* kAddSQL = "INSERT OR REPLACE INTO sha256_verdicts VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)";
constexpr const char* kRemoveSQL = "DELETE FROM sha256_verdicts WHERE sha256 = ?1";
constexpr const char* kCountSQL = "SELECT verdict, count(*) FROM sha256_verdicts GROUP BY verdict";

constexpr const char* kFindSHA1SQL =
    "SELECT verdict, infection_name, prevalence, ttl, source, added FROM sha1_verdicts WHERE sha1 = ?1";
constexpr const char* kAddSHA1SQL =
    "INSERT OR REPLACE INTO sha1_verdicts VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)";
constexpr const char* kRemoveSHA1SQL = "DELETE FROM sha1_verdicts WHERE sha1 = ?1";

constexpr const char* kFindURLSQL =
    "SELECT verdict, infection_name, prevalence, ttl, source, added, categories FROM url_verdicts WHERE key "
    "= ?1";
constexpr const char* kAddURLSQL =
    "INSERT OR REPLACE INTO url_verdicts VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)";
// Changes nothing where a person has spoken.
constexpr const char* kImportURLSQL =
    "INSERT INTO url_verdicts VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8) ON CONFLICT (key) DO UPDATE SET "
    "verdict = excluded.verdict, infection_name = excluded.infection_name, prevalence = excluded.prevalence, "
    "ttl = excluded.ttl, source = excluded.source, added = excluded.added, categories = excluded.categories "
    "WHERE url_verdicts.source <> 'manual'";
constexpr const char* kRemoveURLSQL = "DELETE FROM url_verdicts WHERE key = ?1";
constexpr const char* kRemoveSourceSQL = "DELETE FROM url_verdicts WHERE source = ?1";
constexpr const char* kCountURLsSQL = "SELECT verdict, count(*) FROM url_verdicts GROUP BY verdict";

bool fitsAsText(std::string_view text) {
  return text.size() <= kMaximumTextLength && isValidUTF8(text);
}

bool checkRecord(const StoredVerdict& record, ErrorPtr* error) {
  if (isSafetyVerdictValue(record.verdict) && fitsAsText(record.infectionName.value_or("")) &&
      !record.source.empty() && fitsAsText(record.source))
    return true;
  fail(error, VerdictStoreError::badRecord,
       "A verdict must be one of the safety verdict values, its infection name and source UTF-8 text of at "
       "most 255 bytes.");
  return false;
}

template <class Hash>
bool checkEntry(const std::pair<Hash, StoredVerdict>& entry, ErrorPtr* error) {
  return checkRecord(entry.second, error);
}

bool checkEntry(const VerdictStore::URLEntry& entry, ErrorPtr* error) {
  const auto& [key, record] = entry;
  const bool isKey = !key.empty() && key.size() <= kMaximumURLKeyLength && isValidUTF8(key);
  const bool areCategories =
      record.categories.size() <= kMaximumCategories &&
      std::all_of(record.categories.begin(), record.categories.end(),
                  [](const SVKSkyvaultCategory& category) { return isCategoryName(category.name); });
  if (isKey && areCategories) return checkRecord(record, error);
  fail(error, VerdictStoreError::badRecord,
       "A URL's record must have a key and categories with proper names.");
  return false;
}

template <std::size_t Size>
void bindKey(SQLiteStatement& statement, const std::array<std::uint8_t, Size>& hash) {
  statement.bindBytes(1, hash.data(), hash.size());
}

void bindKey(SQLiteStatement& statement, const std::string& key) {
  statement.bind(1, std::string_view(key));
}

void bindRecord(SQLiteStatement& statement, const StoredVerdict& record) {
  statement.bind(2, std::string_view(record.verdict));
  if (record.infectionName)
    statement.bind(3, std::string_view(*record.infectionName));
  else
    statement.bindNull(3);
  statement.bind(4, std::int64_t{record.prevalence});
  statement.bind(5, std::int64_t{record.ttl});
  statement.bind(6, std::string_view(record.source));
  statement.bind(7, record.added);
}

void bindRecord(SQLiteStatement& statement, const StoredURLVerdict& record) {
  bindRecord(statement, static_cast<const StoredVerdict&>(record));
  statement.bind(8, std::string_view(textFromCategories(record.categories)));
}

// A file that somebody else edited may hold anything: what is out of range is clamped, what cannot be read
// left out.
void readRecord(const SQLiteStatement& statement, StoredVerdict& record) {
  record.verdict = statement.text(0);
  if (!statement.isNull(1)) record.infectionName = lossyUTF8(statement.text(1));
  record.prevalence = static_cast<std::uint8_t>(std::clamp<std::int64_t>(statement.integer(2), 0, 255));
  record.ttl = static_cast<std::uint32_t>(std::clamp<std::int64_t>(statement.integer(3), 0, UINT32_MAX));
  record.source = statement.text(4);
  record.added = statement.integer(5);
}

void readRecord(const SQLiteStatement& statement, StoredURLVerdict& record) {
  readRecord(statement, static_cast<StoredVerdict&>(record));
  record.categories = categoriesFromText(statement.text(6)).value_or(std::vector<SVKSkyvaultCategory>());
}

// SQLITE_ROW with the record, SQLITE_DONE when there is none, else an error's code.
template <class Key, class Record>
int findWith(SQLiteStatement& statement, const Key& key, Record& record) {
  const SQLiteStatementUse use(statement);
  bindKey(statement, key);
  const int status = statement.step();
  if (status == SQLITE_ROW) readRecord(statement, record);
  return status;
}

template <class Key, class Record>
int putWith(SQLiteStatement& statement, const std::pair<Key, Record>& entry) {
  const SQLiteStatementUse use(statement);
  bindKey(statement, entry.first);
  bindRecord(statement, entry.second);
  return statement.step();
}

// SQLITE_DONE when all were counted.
int countWith(SQLiteStatement& statement, VerdictStore::Counts& counts) {
  const SQLiteStatementUse use(statement);
  int status = statement.step();
  for (; status == SQLITE_ROW; status = statement.step())
    counts[statement.text(0)] = static_cast<std::uint64_t>(statement.integer(1));
  return status;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

}  // namespace

bool isSafetyVerdictValue(std::string_view text) {
  constexpr std::array<std::string_view, 6> values = {
      SVKSkyvaultSafetyVerdictValueKnownClean, SVKSkyvaultSafetyVerdictValueUndetected,
      SVKSkyvaultSafetyVerdictValuePU,         SVKSkyvaultSafetyVerdictValueUnwanted,
      SVKSkyvaultSafetyVerdictValueMalicious,  SVKSkyvaultSafetyVerdictValueUnknown};
  return std::find(values.begin(), values.end(), text) != values.end();
}

namespace {

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

std::optional<SHA256Value> sha256FromHex(std::string_view text) {
  return hashFromHex<SHA256Value>(text);
}

std::optional<SHA1Value> sha1FromHex(std::string_view text) {
  return hashFromHex<SHA1Value>(text);
}

// Reading and writing have a connection each, so that a lookup never waits for a transaction: a reader in
// write-ahead mode sees the last committed state.
struct VerdictStore::Reader {
  bool open(const std::string& path, int access, std::chrono::milliseconds busyTimeout, ErrorPtr* error);
  // SQLITE_NOTFOUND as long as the store is of a version without records of URLs; somebody else may change
  // that.
  int prepareForURLs();
  // The same for SHA-1.
  int prepareForSHA1();

  std::mutex mutex;
  SQLiteDatabase database;
  SQLiteStatement find;
  SQLiteStatement count;
  SQLiteStatement findURL;
  SQLiteStatement countURLs;
  SQLiteStatement findSHA1;
};

struct VerdictStore::Writer {
  bool open(const std::string& path, bool exists, std::chrono::milliseconds busyTimeout, ErrorPtr* error);
  int prepare();

  // Runs the work inside a transaction that takes the write lock first. The work returns SQLITE_DONE to
  // commit.
  template <class Work>
  int transaction(const Work& work) {
    int status = database.execute("BEGIN IMMEDIATE");
    if (status == SQLITE_OK) status = work(*this);
    if (status == SQLITE_DONE) status = database.execute("COMMIT");
    if (status == SQLITE_OK) return SQLITE_OK;
    failure = database.errorMessage();
    database.execute("ROLLBACK");  // fails harmlessly when none was begun
    return status;
  }

  std::mutex mutex;
  SQLiteDatabase database;
  SQLiteStatement find;
  SQLiteStatement add;
  SQLiteStatement remove;
  SQLiteStatement addURL;
  SQLiteStatement importURL;
  SQLiteStatement removeURL;
  SQLiteStatement removeSource;
  SQLiteStatement findSHA1;
  SQLiteStatement addSHA1;
  SQLiteStatement removeSHA1;
  std::string failure;  // what the failed transaction said
};

bool VerdictStore::Reader::open(const std::string& path, int access, std::chrono::milliseconds busyTimeout,
                                ErrorPtr* error) {
  int status = openConnection(database, path, access, busyTimeout);
  if (status != SQLITE_OK) {
    failWithStatus(error, status, path, database.errorMessage());
    return false;
  }
  Identity identity;
  if (!checkIdentity(database, path, identity, error)) return false;
  status = database.prepare(kFindSQL, find);
  if (status == SQLITE_OK) status = database.prepare(kCountSQL, count);
  if (status == SQLITE_OK) status = prepareForURLs();
  if (status == SQLITE_OK || status == SQLITE_NOTFOUND) return true;
  failWithStatus(error, withoutTable(status), path, database.errorMessage());
  return false;
}

int VerdictStore::Reader::prepareForURLs() {
  if (countURLs) return SQLITE_OK;
  std::int64_t version = 0;
  if (const int status = database.queryInteger("PRAGMA user_version", version); status != SQLITE_OK)
    return status;
  if (version < kFirstVersionWithURLs) return SQLITE_NOTFOUND;
  if (const int status = database.prepare(kFindURLSQL, findURL); status != SQLITE_OK) return status;
  return database.prepare(kCountURLsSQL, countURLs);
}

int VerdictStore::Reader::prepareForSHA1() {
  if (findSHA1) return SQLITE_OK;
  std::int64_t version = 0;
  if (const int status = database.queryInteger("PRAGMA user_version", version); status != SQLITE_OK)
    return status;
  if (version < kFirstVersionWithSHA1) return SQLITE_NOTFOUND;
  return database.prepare(kFindSHA1SQL, findSHA1);
}

int VerdictStore::Writer::prepare() {
  const std::pair<SQLiteStatement&, const char*> statements[] = {{find, kFindSQL},
                                                                 {add, kAddSQL},
                                                                 {remove, kRemoveSQL},
                                                                 {addURL, kAddURLSQL},
                                                                 {importURL, kImportURLSQL},
                                                                 {removeURL, kRemoveURLSQL},
                                                                 {removeSource, kRemoveSourceSQL},
                                                                 {findSHA1, kFindSHA1SQL},
                                                                 {addSHA1, kAddSHA1SQL},
                                                                 {removeSHA1, kRemoveSHA1SQL}};
  for (const auto& [statement, sql] : statements)
    if (const int status = database.prepare(sql, statement); status != SQLITE_OK) return status;
  return SQLITE_OK;
}

bool VerdictStore::Writer::open(const std::string& path, bool exists, std::chrono::milliseconds busyTimeout,
                                ErrorPtr* error) {
  int status = openConnection(database, path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, busyTimeout);
  if (status != SQLITE_OK) {
    failWithStatus(error, status, path, database.errorMessage());
    return false;
  }
  Identity identity;
  if (!checkIdentity(database, path, identity, error)) return false;
  if (!exists) makeReadableForAll(path);
  // Only now is anything written: first the mode, which the file keeps, then what the schema lacks.
  status = database.execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL");
  if (status != SQLITE_OK) {
    failWithStatus(error, status, path, database.errorMessage());
    return false;
  }
  if (!identity.isCurrent() && !upgrade(database, path, error)) return false;
  status = prepare();
  if (status == SQLITE_OK) return true;
  failWithStatus(error, withoutTable(status), path, database.errorMessage());
  return false;
}

VerdictStore::VerdictStore(std::string path, std::unique_ptr<Reader> reader, std::unique_ptr<Writer> writer)
    : path_(std::move(path)), writer_(std::move(writer)), reader_(std::move(reader)) {}

VerdictStore::~VerdictStore() = default;

std::unique_ptr<VerdictStore> VerdictStore::open(const std::string& path, Access access, ErrorPtr* error,
                                                 std::chrono::milliseconds busyTimeout) {
  bool exists = false;
  if (!checkPlace(path, access == Access::readWrite, exists, error)) return nullptr;
  auto writer = access == Access::readWrite ? std::make_unique<Writer>() : nullptr;
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

std::optional<StoredVerdict> VerdictStore::find(const SHA256Value& sha256, ErrorPtr* error) {
  StoredVerdict record;
  const std::lock_guard lock(reader_->mutex);
  const int status = findWith(reader_->find, sha256, record);
  if (status == SQLITE_ROW) return record;
  if (status != SQLITE_DONE) failWithStatus(error, status, path_, reader_->database.errorMessage());
  return std::nullopt;
}

std::optional<StoredVerdict> VerdictStore::find(const SHA1Value& sha1, ErrorPtr* error) {
  StoredVerdict record;
  const std::lock_guard lock(reader_->mutex);
  int status = reader_->prepareForSHA1();
  if (status == SQLITE_NOTFOUND) return std::nullopt;
  if (status == SQLITE_OK) status = findWith(reader_->findSHA1, sha1, record);
  if (status == SQLITE_ROW) return record;
  if (status != SQLITE_DONE)
    failWithStatus(error, withoutTable(status), path_, reader_->database.errorMessage());
  return std::nullopt;
}

std::optional<VerdictStore::URLEntry> VerdictStore::findURL(const std::vector<std::string>& keys,
                                                            ErrorPtr* error) {
  const std::lock_guard lock(reader_->mutex);
  int status = reader_->prepareForURLs();
  if (status == SQLITE_NOTFOUND) return std::nullopt;
  for (auto key = keys.begin(); key != keys.end() && (status == SQLITE_OK || status == SQLITE_DONE); ++key) {
    StoredURLVerdict record;
    status = findWith(reader_->findURL, *key, record);
    if (status == SQLITE_ROW) return URLEntry(*key, std::move(record));
  }
  if (status != SQLITE_OK && status != SQLITE_DONE)
    failWithStatus(error, withoutTable(status), path_, reader_->database.errorMessage());
  return std::nullopt;
}

template <class Work>
bool VerdictStore::change(const Work& work, ErrorPtr* error) {
  if (writer_ == nullptr) {
    failWithStatus(error, SQLITE_READONLY, path_, "opened for reading");
    return false;
  }
  const std::lock_guard lock(writer_->mutex);
  const int status = writer_->transaction(work);
  if (status == SQLITE_OK) return true;
  failWithStatus(error, status, path_, writer_->failure);
  return false;
}

template <class Entries>
bool VerdictStore::putAll(SQLiteStatement Writer::*statement, const Entries& entries, std::size_t& changed,
                          ErrorPtr* error) {
  for (const auto& entry : entries)
    if (!checkEntry(entry, error)) return false;
  return change(
      [&](Writer& writer) {
        for (const auto& entry : entries) {
          if (const int put = putWith(writer.*statement, entry); put != SQLITE_DONE) return put;
          changed += static_cast<std::size_t>(writer.database.changes());
        }
        return SQLITE_DONE;
      },
      error);
}

template <class Key>
std::optional<std::size_t> VerdictStore::removeAll(SQLiteStatement Writer::*statement,
                                                   const std::vector<Key>& keys, ErrorPtr* error) {
  std::size_t removed = 0;
  const auto work = [&](Writer& writer) {
    for (const Key& key : keys) {
      const SQLiteStatementUse use(writer.*statement);
      bindKey(writer.*statement, key);
      if (const int step = (writer.*statement).step(); step != SQLITE_DONE) return step;
      removed += static_cast<std::size_t>(writer.database.changes());
    }
    return SQLITE_DONE;
  };
  return change(work, error) ? std::optional(removed) : std::nullopt;
}

bool VerdictStore::add(const std::vector<Entry>& entries, ErrorPtr* error) {
  std::size_t changed = 0;
  return putAll(&Writer::add, entries, changed, error);
}

bool VerdictStore::add(const std::vector<SHA1Entry>& entries, ErrorPtr* error) {
  std::size_t changed = 0;
  return putAll(&Writer::addSHA1, entries, changed, error);
}

bool VerdictStore::addURLs(const std::vector<URLEntry>& entries, ErrorPtr* error) {
  std::size_t changed = 0;
  return putAll(&Writer::addURL, entries, changed, error);
}

std::optional<std::size_t> VerdictStore::importURLs(const std::vector<URLEntry>& entries, ErrorPtr* error) {
  std::size_t changed = 0;
  return putAll(&Writer::importURL, entries, changed, error) ? std::optional(changed) : std::nullopt;
}

std::optional<StoredVerdict> VerdictStore::remember(const SHA256Value& sha256, const SHA1Value& sha1,
                                                    const StoredVerdict& found, ErrorPtr* error) {
  if (!checkRecord(found, error)) return std::nullopt;
  StoredVerdict inForce = found;
  const auto work = [&](Writer& writer) {
    StoredVerdict present;
    for (const bool isSHA1 : {false, true}) {
      const int there =
          isSHA1 ? findWith(writer.findSHA1, sha1, present) : findWith(writer.find, sha256, present);
      if (there == SQLITE_ROW && present.source != found.source) {
        inForce = present;
        return SQLITE_DONE;
      }
      if (there != SQLITE_ROW && there != SQLITE_DONE) return there;
    }
    const int put = putWith(writer.add, Entry(sha256, found));
    return put == SQLITE_DONE ? putWith(writer.addSHA1, SHA1Entry(sha1, found)) : put;
  };
  return change(work, error) ? std::optional(inForce) : std::nullopt;
}

std::optional<std::size_t> VerdictStore::remove(const std::vector<SHA256Value>& hashes, ErrorPtr* error) {
  return removeAll(&Writer::remove, hashes, error);
}

std::optional<std::size_t> VerdictStore::remove(const std::vector<SHA1Value>& hashes, ErrorPtr* error) {
  return removeAll(&Writer::removeSHA1, hashes, error);
}

std::optional<std::size_t> VerdictStore::removeURLs(const std::vector<std::string>& keys, ErrorPtr* error) {
  return removeAll(&Writer::removeURL, keys, error);
}

std::optional<std::size_t> VerdictStore::removeURLsOfSource(const std::string& source, ErrorPtr* error) {
  return removeAll(&Writer::removeSource, std::vector{source}, error);
}

std::optional<VerdictStore::Counts> VerdictStore::count(ErrorPtr* error) {
  const std::lock_guard lock(reader_->mutex);
  Counts counts;
  const int status = countWith(reader_->count, counts);
  if (status == SQLITE_DONE) return counts;
  failWithStatus(error, status, path_, reader_->database.errorMessage());
  return std::nullopt;
}

std::optional<VerdictStore::Counts> VerdictStore::countURLs(ErrorPtr* error) {
  const std::lock_guard lock(reader_->mutex);
  Counts counts;
  int status = reader_->prepareForURLs();
  if (status == SQLITE_OK) status = countWith(reader_->countURLs, counts);
  if (status == SQLITE_DONE || status == SQLITE_NOTFOUND) return counts;
  failWithStatus(error, withoutTable(status), path_, reader_->database.errorMessage());
  return std::nullopt;
}

}  // namespace qm
