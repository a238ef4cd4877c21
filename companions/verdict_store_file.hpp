// The file of a verdict store: where it may lie, what tells it from others, its schema and how an older one
// is brought up to date. Used by the verdict store only.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "companions/sqlite_database.hpp"
#include "companions/verdict_store.hpp"
#include "foundation/error.hpp"

namespace qm::verdict_store_file {

// The version from which on there are records of a kind.
std::int64_t firstVersionWith(VerdictKind kind);

void fail(ErrorPtr* error, VerdictStoreError code, std::string text);
void failWith(ErrorPtr* error, const SQLiteFailure& failure, const std::string& path);
// What a failed preparation of a statement means: the marks of a store without its tables are nothing that
// this product writes.
int withoutTable(int status);

// False, with an error, when the store cannot be there. Never touches what is no regular file: opening a pipe
// or a device may have effects of its own. Missing folders are made where a missing file may be.
bool checkPlace(const std::string& path, bool mayBeMissing, bool& exists, ErrorPtr* error);
// Everything is in the file itself when there is no log beside it: nobody has it open for writing.
bool mayBeReadAlone(const std::string& path);
// The file read without locks and without files beside it (https://sqlite.org/uri.html).
std::string unlockedURI(const std::string& path);
void makeReadableForAll(const std::string& path);

// An SQLite result code. The access is SQLite's flags.
int openConnection(SQLiteDatabase& database, const std::string& path, int access,
                   std::chrono::milliseconds busyTimeout);

struct Identity {
  std::int64_t applicationID = 0;
  std::int64_t version = 0;
  std::int64_t objects = 0;  // tables and the like

  bool isCurrent() const;
};

// An empty file is a store still to be filled; anything else must say that it is one, of a version known
// here.
bool checkIdentity(SQLiteDatabase& database, const std::string& path, Identity& identity, ErrorPtr* error);
// Brings the store up to this version in one transaction; another program may be doing the same.
bool upgrade(SQLiteDatabase& database, const std::string& path, ErrorPtr* error);

}  // namespace qm::verdict_store_file
