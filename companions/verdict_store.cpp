#include "companions/verdict_store.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "companions/sqlite_database.hpp"
#include "foundation/strings.hpp"
#include "platform/file_io.hpp"
#include "reputation/backends/SVKSkyvaultServiceClientProtocol.hpp"

namespace qm {

namespace {

// "QMVS": tells a verdict store from any other SQLite file.
constexpr std::int64_t kApplicationID = 0x514D5653;
constexpr std::size_t kMaximumTextLength = 255;

// What each schema version adds to the one before it; the version of a store stands in its user_version.
// Further kinds of keys (SHA-1, URLs) are tables of their own, further facts are columns: both are appended
// here as a new step.
constexpr std::array kSchemaSteps = {
    "CREATE TABLE sha256_verdicts ("
    "  sha256 BLOB NOT NULL PRIMARY KEY CHECK (length(sha256) = 32),"
    "  verdict TEXT NOT NULL,"
    "  infection_name TEXT,"
    "  prevalence INTEGER NOT NULL CHECK (prevalence BETWEEN 0 AND 255),"
    "  ttl INTEGER NOT NULL CHECK (ttl BETWEEN 0 AND 4294967295),"
    "  source TEXT NOT NULL,"
    "  added INTEGER NOT NULL"
    ") STRICT, WITHOUT ROWID",
};
constexpr std::int64_t kSchemaVersion = static_cast<std::int64_t>(kSchemaSteps.size());

constexpr const char* kFindSQL =
    "SELECT verdict, infection_name, prevalence, ttl, source, added FROM sha256_verdicts WHERE sha256 = ?1";
constexpr const char* kAddSQL = "INSERT OR REPLACE INTO sha256_verdicts VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)";
constexpr const char* kRemoveSQL = "DELETE FROM sha256_verdicts WHERE sha256 = ?1";
constexpr const char* kCountSQL = "SELECT verdict, count(*) FROM sha256_verdicts GROUP BY verdict";

void fail(ErrorPtr* error, VerdictStoreError code, std::string text) {
  setError(error, makeError(kVerdictStoreErrorDomain, static_cast<std::int64_t>(code),
                            {{kLocalizedDescriptionKey, std::move(text)}}));
}

// The error for a result code of SQLite's; `detail` is its own text.
void failWithStatus(ErrorPtr* error, int status, const std::string& path, const std::string& detail) {
  const std::string store = "The verdict store “" + path + "” ";
  switch (status & 0xff) {
    case SQLITE_CORRUPT:
      return fail(error, VerdictStoreError::damaged,
                  store + "is damaged (" + detail + "). Move it away to start with an empty one.");
    case SQLITE_NOTADB:
      return fail(error, VerdictStoreError::notAStore, "“" + path + "” is not a verdict store.");
    case SQLITE_FULL:
      return fail(error, VerdictStoreError::diskFull, store + "was not changed: the disk is full.");
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return fail(error, VerdictStoreError::busy, store + "is locked by another program.");
    case SQLITE_READONLY:
    case SQLITE_PERM:
      return fail(error, VerdictStoreError::readOnly, store + "cannot be written (" + detail + ").");
    case SQLITE_CANTOPEN:
    case SQLITE_AUTH:
      return fail(error, VerdictStoreError::cannotOpen, store + "cannot be opened (" + detail + ").");
    default:
      return fail(error, VerdictStoreError::failed, store + "failed: " + detail + ".");
  }
}

bool checkRecord(const StoredVerdict& record, ErrorPtr* error) {
  const bool nameFits = !record.infectionName || (record.infectionName->size() <= kMaximumTextLength &&
                                                  isValidUTF8(*record.infectionName));
  if (isSafetyVerdictValue(record.verdict) && nameFits && !record.source.empty() &&
      record.source.size() <= kMaximumTextLength && isValidUTF8(record.source))
    return true;
  fail(error, VerdictStoreError::badRecord,
       "A verdict must be one of the safety verdict values, its infection name and source UTF-8 text of at "
       "most 255 "
       "bytes.");
  return false;
}

void bindHash(SQLiteStatement& statement, const SHA256Value& sha256) {
  statement.bindBytes(1, sha256.data(), sha256.size());
}

void bindRecord(SQLiteStatement& statement, const SHA256Value& sha256, const StoredVerdict& record) {
  bindHash(statement, sha256);
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

// A file that somebody else edited may hold anything: what is out of range is clamped.
StoredVerdict recordFromRow(const SQLiteStatement& statement) {
  StoredVerdict record;
  record.verdict = statement.text(0);
  if (!statement.isNull(1)) record.infectionName = lossyUTF8(statement.text(1));
  record.prevalence = static_cast<std::uint8_t>(std::clamp<std::int64_t>(statement.integer(2), 0, 255));
  record.ttl = static_cast<std::uint32_t>(std::clamp<std::int64_t>(statement.integer(3), 0, UINT32_MAX));
  record.source = statement.text(4);
  record.added = statement.integer(5);
  return record;
}

// SQLITE_ROW with the record, SQLITE_DONE when there is none, else an error's code.
int findWith(SQLiteStatement& statement, const SHA256Value& sha256, StoredVerdict& record) {
  const SQLiteStatementUse use(statement);
  bindHash(statement, sha256);
  const int status = statement.step();
  if (status == SQLITE_ROW) record = recordFromRow(statement);
  return status;
}

int openConnection(SQLiteDatabase& database, const std::string& path, int access,
                   std::chrono::milliseconds busyTimeout) {
  if (const int status = database.open(path, access | SQLITE_OPEN_NOMUTEX); status != SQLITE_OK)
    return status;
  const std::string patience = "PRAGMA busy_timeout = " + std::to_string(busyTimeout.count());
  if (const int status = database.execute(patience.c_str()); status != SQLITE_OK) return status;
  return database.execute("PRAGMA trusted_schema = OFF; PRAGMA cell_size_check = ON");
}

struct Identity {
  std::int64_t applicationID = 0;
  std::int64_t version = 0;
  std::int64_t objects = 0;  // tables and the like
};

int readIdentity(SQLiteDatabase& database, Identity& identity) {
  if (const int status = database.queryInteger("PRAGMA application_id", identity.applicationID);
      status != SQLITE_OK)
    return status;
  if (const int status = database.queryInteger("PRAGMA user_version", identity.version); status != SQLITE_OK)
    return status;
  return database.queryInteger("SELECT count(*) FROM sqlite_schema", identity.objects);
}

// An empty file is a store still to be filled; anything else must say that it is one, of a version known
// here.
bool checkIdentity(SQLiteDatabase& database, const std::string& path, Identity& identity, ErrorPtr* error) {
  if (const int status = readIdentity(database, identity); status != SQLITE_OK) {
    failWithStatus(error, status, path, database.errorMessage());
    return false;
  }
  const bool isEmpty = identity.applicationID == 0 && identity.version == 0 && identity.objects == 0;
  if (!isEmpty && identity.applicationID != kApplicationID) {
    fail(error, VerdictStoreError::notAStore, "“" + path + "” is not a verdict store.");
    return false;
  }
  if (identity.version > kSchemaVersion) {
    fail(error, VerdictStoreError::newerVersion,
         "The verdict store “" + path + "” was written by a newer version of the product (schema " +
             std::to_string(identity.version) + ", known here: " + std::to_string(kSchemaVersion) +
             "). It was left as it is.");
    return false;
  }
  return true;
}

// Brings the store up to this version in one transaction; another program may be doing the same.
bool upgrade(SQLiteDatabase& database, const std::string& path, ErrorPtr* error) {
  int status = database.execute("BEGIN IMMEDIATE");
  if (status != SQLITE_OK) {
    failWithStatus(error, status, path, database.errorMessage());
    return false;
  }
  Identity identity;
  if (!checkIdentity(database, path, identity, error)) {
    database.execute("ROLLBACK");
    return false;
  }
  for (std::int64_t step = identity.version; step < kSchemaVersion && status == SQLITE_OK; ++step)
    status = database.execute(kSchemaSteps[static_cast<std::size_t>(step)]);
  const std::string marks = "PRAGMA application_id = " + std::to_string(kApplicationID) +
                            "; PRAGMA user_version = " + std::to_string(kSchemaVersion);
  if (status == SQLITE_OK) status = database.execute(marks.c_str());
  if (status == SQLITE_OK) status = database.execute("COMMIT");
  if (status == SQLITE_OK) return true;
  failWithStatus(error, status, path, database.errorMessage());
  database.execute("ROLLBACK");
  return false;
}

// Makes the folder and those above it that are missing, open to all for reading whatever the process's mask.
bool makeFolder(const std::filesystem::path& folder, ErrorPtr* error) {
  namespace fs = std::filesystem;
  std::error_code failure;
  if (folder.empty() || fs::is_directory(folder, failure)) return true;
  if (folder != folder.root_path() && !makeFolder(folder.parent_path(), error)) return false;
  if (fs::create_directory(folder, failure))
    fs::permissions(folder,
                    fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                        fs::perms::others_read | fs::perms::others_exec,
                    failure);
  if (!failure) return true;
  fail(error, VerdictStoreError::cannotOpen,
       "The folder “" + folder.string() + "” cannot be made: " + failure.message() + ".");
  return false;
}

// Never touches what is no regular file: opening a pipe or a device may have effects of its own.
bool checkPlace(const std::string& path, VerdictStore::Access access, bool& exists, ErrorPtr* error) {
  FileStatus status;
  exists = statPath(path.c_str(), status);
  if (exists && !status.isRegularFile) {
    fail(error, VerdictStoreError::cannotOpen, "“" + path + "” is not a regular file.");
    return false;
  }
  if (!exists && access != VerdictStore::Access::readWrite) {
    fail(error, VerdictStoreError::cannotOpen, "There is no verdict store at “" + path + "”.");
    return false;
  }
  return exists || makeFolder(std::filesystem::path(path).parent_path(), error);
}

// Everything is in the file itself when there is no log beside it: nobody has it open for writing.
bool mayBeReadAlone(const std::string& path) {
  std::error_code failure;
  const std::uintmax_t size = std::filesystem::file_size(path + "-wal", failure);
  return failure == std::errc::no_such_file_or_directory || (!failure && size == 0);
}

// The file read without locks and without files beside it (https://sqlite.org/uri.html).
std::string unlockedURI(const std::string& path) {
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%')
      uri += "%25";
    else if (c == '?')
      uri += "%3f";
    else if (c == '#')
      uri += "%23";
    else
      uri += c;
  }
  return uri + "?immutable=1";
}

// The marks of a store without its table are nothing that this product writes.
int withoutTable(int status) {
  return status == SQLITE_ERROR ? SQLITE_CORRUPT : status;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

void makeReadableForAll(const std::string& path) {
  using std::filesystem::perms;
  std::error_code failure;
  std::filesystem::permissions(
      path, perms::owner_read | perms::owner_write | perms::group_read | perms::others_read, failure);
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
  SHA256Value hash{};
  if (text.size() != 2 * hash.size()) return std::nullopt;
  for (std::size_t i = 0; i < hash.size(); ++i) {
    const int high = hexDigit(text[2 * i]), low = hexDigit(text[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    hash[i] = static_cast<std::uint8_t>(high * 16 + low);
  }
  return hash;
}

// Reading and writing have a connection each, so that a lookup never waits for a transaction: a reader in
// write-ahead mode sees the last committed state.
struct VerdictStore::Reader {
  bool open(const std::string& path, int access, std::chrono::milliseconds busyTimeout, ErrorPtr* error);

  std::mutex mutex;
  SQLiteDatabase database;
  SQLiteStatement find;
  SQLiteStatement count;
};

struct VerdictStore::Writer {
  bool open(const std::string& path, bool exists, std::chrono::milliseconds busyTimeout, ErrorPtr* error);

  // Runs the work inside a transaction that takes the write lock first. The work returns SQLITE_DONE to
  // commit.
  template <class Work>
  int transaction(const Work& work) {
    int status = database.execute("BEGIN IMMEDIATE");
    if (status == SQLITE_OK) status = work();
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
  if (status == SQLITE_OK) return true;
  failWithStatus(error, withoutTable(status), path, database.errorMessage());
  return false;
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
  const bool isCurrent = identity.applicationID == kApplicationID && identity.version == kSchemaVersion;
  if (!isCurrent && !upgrade(database, path, error)) return false;
  status = database.prepare(kFindSQL, find);
  if (status == SQLITE_OK) status = database.prepare(kAddSQL, add);
  if (status == SQLITE_OK) status = database.prepare(kRemoveSQL, remove);
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
  if (!checkPlace(path, access, exists, error)) return nullptr;
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

bool VerdictStore::add(const std::vector<Entry>& entries, ErrorPtr* error) {
  for (const Entry& entry : entries)
    if (!checkRecord(entry.second, error)) return false;
  if (writer_ == nullptr) {
    failWithStatus(error, SQLITE_READONLY, path_, "opened for reading");
    return false;
  }
  const std::lock_guard lock(writer_->mutex);
  const int status = writer_->transaction([&] {
    for (const auto& [sha256, record] : entries) {
      const SQLiteStatementUse use(writer_->add);
      bindRecord(writer_->add, sha256, record);
      if (const int added = writer_->add.step(); added != SQLITE_DONE) return added;
    }
    return SQLITE_DONE;
  });
  if (status == SQLITE_OK) return true;
  failWithStatus(error, status, path_, writer_->failure);
  return false;
}

std::optional<StoredVerdict> VerdictStore::remember(const SHA256Value& sha256, const StoredVerdict& found,
                                                    ErrorPtr* error) {
  if (!checkRecord(found, error)) return std::nullopt;
  if (writer_ == nullptr) {
    failWithStatus(error, SQLITE_READONLY, path_, "opened for reading");
    return std::nullopt;
  }
  const std::lock_guard lock(writer_->mutex);
  StoredVerdict inForce = found;
  const int status = writer_->transaction([&] {
    StoredVerdict present;
    const int there = findWith(writer_->find, sha256, present);
    if (there == SQLITE_ROW && present.source != found.source) {
      inForce = present;
      return SQLITE_DONE;
    }
    if (there != SQLITE_ROW && there != SQLITE_DONE) return there;
    const SQLiteStatementUse use(writer_->add);
    bindRecord(writer_->add, sha256, found);
    return writer_->add.step();
  });
  if (status == SQLITE_OK) return inForce;
  failWithStatus(error, status, path_, writer_->failure);
  return std::nullopt;
}

std::optional<std::size_t> VerdictStore::remove(const std::vector<SHA256Value>& hashes, ErrorPtr* error) {
  if (writer_ == nullptr) {
    failWithStatus(error, SQLITE_READONLY, path_, "opened for reading");
    return std::nullopt;
  }
  const std::lock_guard lock(writer_->mutex);
  std::size_t removed = 0;
  const int status = writer_->transaction([&] {
    for (const SHA256Value& sha256 : hashes) {
      const SQLiteStatementUse use(writer_->remove);
      bindHash(writer_->remove, sha256);
      if (const int step = writer_->remove.step(); step != SQLITE_DONE) return step;
      removed += static_cast<std::size_t>(writer_->database.changes());
    }
    return SQLITE_DONE;
  });
  if (status == SQLITE_OK) return removed;
  failWithStatus(error, status, path_, writer_->failure);
  return std::nullopt;
}

std::optional<std::map<std::string, std::uint64_t>> VerdictStore::count(ErrorPtr* error) {
  const std::lock_guard lock(reader_->mutex);
  const SQLiteStatementUse use(reader_->count);
  std::map<std::string, std::uint64_t> counts;
  int status = reader_->count.step();
  for (; status == SQLITE_ROW; status = reader_->count.step())
    counts[reader_->count.text(0)] = static_cast<std::uint64_t>(reader_->count.integer(1));
  if (status == SQLITE_DONE) return counts;
  failWithStatus(error, status, path_, reader_->database.errorMessage());
  return std::nullopt;
}

}  // namespace qm
