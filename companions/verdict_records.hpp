// The rows of a verdict store's tables: which of them are taken, how they are written, and how they are read
// again. Used by the verdict store only.
#pragma once

#include <sqlite3.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "companions/sqlite_database.hpp"
#include "companions/verdict_store.hpp"
#include "foundation/error.hpp"
#include "platform/digest.hpp"

namespace qm::verdict_records {

inline constexpr std::size_t kKinds = std::variant_size_v<VerdictKey>;
inline constexpr std::array<VerdictKind, kKinds> kAllKinds = {VerdictKind::sha256, VerdictKind::sha1,
                                                              VerdictKind::url};

constexpr std::size_t indexOf(VerdictKind kind) {
  return static_cast<std::size_t>(kind);
}

// The table that a type of key has its rows in.
template <class Key>
struct Table;
template <>
struct Table<SHA256Value> {
  using Record = StoredVerdict;
  static constexpr VerdictKind kind = VerdictKind::sha256;
};
template <>
struct Table<SHA1Value> {
  using Record = StoredVerdict;
  static constexpr VerdictKind kind = VerdictKind::sha1;
};
template <>
struct Table<std::string> {
  using Record = StoredURLVerdict;
  static constexpr VerdictKind kind = VerdictKind::url;
};

// The statements of one table.
struct ReadStatements {
  SQLiteStatement find;
  SQLiteStatement count;
  SQLiteStatement countSources;
};
struct WriteStatements {
  SQLiteStatement find;
  SQLiteStatement put;
  SQLiteStatement remove;
  SQLiteStatement stretch;       // the last key, and the number, of the ?2 rows behind the key ?1
  SQLiteStatement removeSource;  // ?1, behind the key ?2, up to the key ?3
};

// All of them or, with an SQLite result code, only some.
int prepare(SQLiteDatabase& database, VerdictKind kind, ReadStatements& statements);
int prepare(SQLiteDatabase& database, VerdictKind kind, WriteStatements& statements);
// Gives keys and records for readEntry(); of the bound source or, when that is null, of all.
int prepareVisit(SQLiteDatabase& database, VerdictKind kind, SQLiteStatement& statement);

// False with badRecord.
bool checkRecord(const StoredVerdict& record, ErrorPtr* error);
bool checkEntry(const VerdictStore::Entry& entry, ErrorPtr* error);
bool checkEntry(const VerdictStore::URLEntry& entry, ErrorPtr* error);
bool checkEntry(const VerdictEntry& entry, ErrorPtr* error);

void bindKey(SQLiteStatement& statement, const SHA256Value& sha256);
void bindKey(SQLiteStatement& statement, const SHA1Value& sha1);
void bindKey(SQLiteStatement& statement, const std::string& key);
// A key as its bytes stand in the table; before all others when it is empty.
void bindStretchKey(SQLiteStatement& statement, int parameter, VerdictKind kind, const std::string& bytes);
void bindRecord(SQLiteStatement& statement, const StoredVerdict& record);
void bindRecord(SQLiteStatement& statement, const StoredURLVerdict& record);

// A file that somebody else edited may hold anything: what is out of range is clamped, what cannot be read
// left out.
void readRecord(const SQLiteStatement& statement, StoredVerdict& record);
void readRecord(const SQLiteStatement& statement, StoredURLVerdict& record);
VerdictEntry readEntry(const SQLiteStatement& statement, VerdictKind kind);

// SQLITE_DONE when all were counted.
int countRows(SQLiteStatement& statement, VerdictStore::Counts& counts);

// SQLITE_ROW with the record, SQLITE_DONE when there is none, else an error's code.
template <class Key>
int findRow(SQLiteStatement& statement, const Key& key, typename Table<Key>::Record& record) {
  const SQLiteStatementUse use(statement);
  bindKey(statement, key);
  const int status = statement.step();
  if (status == SQLITE_ROW) readRecord(statement, record);
  return status;
}
// SQLITE_DONE, else an error's code.
template <class Key>
int putRow(SQLiteStatement& statement, const Key& key, const typename Table<Key>::Record& record) {
  const SQLiteStatementUse use(statement);
  bindKey(statement, key);
  bindRecord(statement, record);
  return statement.step();
}

// Whether both say the same, whenever they came.
template <class Record>
bool saySame(const Record& one, Record other) {
  other.added = one.added;
  return one == other;
}

}  // namespace qm::verdict_records
