#include "companions/verdict_store_file.hpp"

#include <sqlite3.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/file_io.hpp"

namespace qm::verdict_store_file {

namespace {

// "QMVS": tells a verdict store from any other SQLite file.
constexpr std::int64_t kApplicationID = 0x514D5653;

// What each schema version adds to the one before it; the version of a store stands in its user_version.
// Further kinds of keys are tables of their own, further facts are columns: both are appended here as a new
// step.
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
    "CREATE TABLE url_verdicts ("
    "  key TEXT NOT NULL PRIMARY KEY CHECK (key <> ''),"
    "  verdict TEXT NOT NULL,"
    "  infection_name TEXT,"
    "  prevalence INTEGER NOT NULL CHECK (prevalence BETWEEN 0 AND 255),"
    "  ttl INTEGER NOT NULL CHECK (ttl BETWEEN 0 AND 4294967295),"
    "  source TEXT NOT NULL,"
    "  added INTEGER NOT NULL,"
    "  categories TEXT NOT NULL"
    ") STRICT, WITHOUT ROWID",
    "CREATE TABLE sha1_verdicts ("
    "  sha1 BLOB NOT NULL PRIMARY KEY CHECK (length(sha1) = 20),"
    "  verdict TEXT NOT NULL,"
    "  infection_name TEXT,"
    "  prevalence INTEGER NOT NULL CHECK (prevalence BETWEEN 0 AND 255),"
    "  ttl INTEGER NOT NULL CHECK (ttl BETWEEN 0 AND 4294967295),"
    "  source TEXT NOT NULL,"
    "  added INTEGER NOT NULL"
    ") STRICT, WITHOUT ROWID",
};
constexpr std::int64_t kSchemaVersion = static_cast<std::int64_t>(kSchemaSteps.size());

}  // namespace

std::int64_t firstVersionWith(VerdictKind kind) {
  switch (kind) {
    case VerdictKind::sha256:
      return 1;
    case VerdictKind::url:
      return 2;
    case VerdictKind::sha1:
      return 3;
  }
  return kSchemaVersion + 1;
}

void fail(ErrorPtr* error, VerdictStoreError code, std::string text) {
  setError(error, makeError(kVerdictStoreErrorDomain, static_cast<std::int64_t>(code),
                            {{kLocalizedDescriptionKey, std::move(text)}}));
}

void failAsNoStore(ErrorPtr* error, const std::string& path) {
  fail(error, VerdictStoreError::notAStore,
       "“" + path +
           "” is not a verdict store. Name another file, or move it away to start with an empty one.");
}

void failWith(ErrorPtr* error, const SQLiteFailure& failure, const std::string& path) {
  const std::string store = "The verdict store “" + path + "” ";
  const auto& [status, detail, errorNumber] = failure;
  const bool isFileTrouble = (status & 0xff) == SQLITE_IOERR || (status & 0xff) == SQLITE_CANTOPEN;
  if (isFileTrouble && (errorNumber == ENOSPC || errorNumber == EDQUOT || errorNumber == EFBIG))
    return fail(error, VerdictStoreError::diskFull, store + "cannot be used: the disk is full.");
  switch (status & 0xff) {
    case SQLITE_CORRUPT:
      return fail(error, VerdictStoreError::damaged,
                  store + "is damaged (" + detail + "). Move it away to start with an empty one.");
    case SQLITE_NOTADB:
      return failAsNoStore(error, path);
    case SQLITE_FULL:
      return fail(error, VerdictStoreError::diskFull, store + "cannot be changed: the disk is full.");
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

int openConnection(SQLiteDatabase& database, const std::string& path, int access,
                   std::chrono::milliseconds busyTimeout) {
  if (const int status = database.open(path, access | SQLITE_OPEN_NOMUTEX); status != SQLITE_OK)
    return status;
  const std::string patience = "PRAGMA busy_timeout = " + std::to_string(busyTimeout.count());
  if (const int status = database.execute(patience.c_str()); status != SQLITE_OK) return status;
  return database.execute("PRAGMA trusted_schema = OFF; PRAGMA cell_size_check = ON");
}

bool Identity::isCurrent() const {
  return applicationID == kApplicationID && version == kSchemaVersion;
}

namespace {

int readIdentity(SQLiteDatabase& database, Identity& identity) {
  if (const int status = database.queryInteger("PRAGMA application_id", identity.applicationID);
      status != SQLITE_OK)
    return status;
  if (const int status = database.queryInteger("PRAGMA user_version", identity.version); status != SQLITE_OK)
    return status;
  return database.queryInteger("SELECT count(*) FROM sqlite_schema", identity.objects);
}

}  // namespace

bool checkIdentity(SQLiteDatabase& database, const std::string& path, Identity& identity, ErrorPtr* error) {
  if (const int status = readIdentity(database, identity); status != SQLITE_OK) {
    failWith(error, database.failure(status), path);
    return false;
  }
  const bool isEmpty = identity.applicationID == 0 && identity.version == 0 && identity.objects == 0;
  if ((!isEmpty && identity.applicationID != kApplicationID) || identity.version < 0) {
    failAsNoStore(error, path);
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

bool upgrade(SQLiteDatabase& database, const std::string& path, ErrorPtr* error) {
  int status = database.execute("BEGIN IMMEDIATE");
  if (status != SQLITE_OK) {
    failWith(error, database.failure(status), path);
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
  failWith(error, database.failure(status), path);
  database.execute("ROLLBACK");
  return false;
}

namespace {

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

}  // namespace

bool checkPlace(const std::string& path, bool mayBeMissing, bool& exists, ErrorPtr* error) {
  FileStatus status;
  exists = statPath(path.c_str(), status);
  if (exists && !status.isRegularFile) {
    fail(error, VerdictStoreError::cannotOpen, "“" + path + "” is not a regular file.");
    return false;
  }
  if (!exists && !mayBeMissing) {
    fail(error, VerdictStoreError::cannotOpen, "There is no verdict store at “" + path + "”.");
    return false;
  }
  return exists || makeFolder(std::filesystem::path(path).parent_path(), error);
}

bool mayBeReadAlone(const std::string& path) {
  std::error_code failure;
  const std::uintmax_t size = std::filesystem::file_size(path + "-wal", failure);
  return failure == std::errc::no_such_file_or_directory || (!failure && size == 0);
}

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

int withoutTable(int status) {
  return status == SQLITE_ERROR ? SQLITE_CORRUPT : status;
}

void makeReadableForAll(const std::string& path) {
  using std::filesystem::perms;
  std::error_code failure;
  std::filesystem::permissions(
      path, perms::owner_read | perms::owner_write | perms::group_read | perms::others_read, failure);
}

}  // namespace qm::verdict_store_file
