#include "companions/verdict_records.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <array>

#include "companions/url_categories.hpp"
#include "companions/url_key.hpp"
#include "companions/verdict_store_file.hpp"
#include "foundation/strings.hpp"

namespace qm::verdict_records {

namespace {

struct TableNames {
  const char* table;
  const char* key;
  const char* record;  // its columns in the order in which they are written and read
};

constexpr std::array<TableNames, kKinds> kTables = {{
    {"sha256_verdicts", "sha256", "verdict, infection_name, prevalence, ttl, source, added"},
    {"sha1_verdicts", "sha1", "verdict, infection_name, prevalence, ttl, source, added"},
    {"url_verdicts", "key", "verdict, infection_name, prevalence, ttl, source, added, categories"},
}};

struct Preparation {
  SQLiteStatement& statement;
  std::string sql;
};

int prepareAll(SQLiteDatabase& database, std::initializer_list<Preparation> preparations) {
  for (const auto& [statement, sql] : preparations)
    if (const int status = database.prepare(sql.c_str(), statement); status != SQLITE_OK) return status;
  return SQLITE_OK;
}

std::string findSQL(const TableNames& names) {
  return std::string("SELECT ") + names.record + " FROM " + names.table + " WHERE " + names.key + " = ?1";
}

bool isKey(const std::string& key) {
  return !key.empty() && key.size() <= kMaximumURLKeyLength && isValidUTF8(key);
}

bool checkURL(const std::string& key, const StoredURLVerdict& record, ErrorPtr* error) {
  const bool areCategories =
      record.categories.size() <= kMaximumCategories &&
      std::all_of(record.categories.begin(), record.categories.end(),
                  [](const SVKSkyvaultCategory& category) { return isCategoryName(category.name); });
  if (isKey(key) && areCategories) return checkRecord(record, error);
  verdict_store_file::fail(error, VerdictStoreError::badRecord,
                           "A URL's record must have a key and categories with proper names.");
  return false;
}

}  // namespace

int prepare(SQLiteDatabase& database, VerdictKind kind, ReadStatements& statements) {
  const TableNames& names = kTables.at(indexOf(kind));
  const std::string rest = std::string(", count(*) FROM ") + names.table + " GROUP BY ";
  return prepareAll(database, {{statements.find, findSQL(names)},
                               {statements.count, "SELECT verdict" + rest + "verdict"},
                               {statements.countSources, "SELECT source" + rest + "source"}});
}

int prepare(SQLiteDatabase& database, VerdictKind kind, WriteStatements& statements) {
  const TableNames& names = kTables.at(indexOf(kind));
  const std::string table = names.table, key = names.key;
  const std::string values =
      kind == VerdictKind::url ? "(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)" : "(?1, ?2, ?3, ?4, ?5, ?6, ?7)";
  return prepareAll(
      database, {{statements.find, findSQL(names)},
                 {statements.put, "INSERT OR REPLACE INTO " + table + " VALUES " + values},
                 {statements.remove, "DELETE FROM " + table + " WHERE " + key + " = ?1"},
                 {statements.stretch, "SELECT max(" + key + "), count(*) FROM (SELECT " + key + " FROM " +
                                          table + " WHERE " + key + " > ?1 ORDER BY " + key + " LIMIT ?2)"},
                 {statements.removeSource,
                  "DELETE FROM " + table + " WHERE source = ?1 AND " + key + " > ?2 AND " + key + " <= ?3"}});
}

int prepareVisit(SQLiteDatabase& database, VerdictKind kind, SQLiteStatement& statement) {
  const TableNames& names = kTables.at(indexOf(kind));
  const std::string sql = std::string("SELECT ") + names.record + ", " + names.key + " FROM " + names.table +
                          " WHERE ?1 IS NULL OR source = ?1 ORDER BY " + names.key;
  return database.prepare(sql.c_str(), statement);
}

bool checkRecord(const StoredVerdict& record, ErrorPtr* error) {
  if (isSafetyVerdictValue(record.verdict) && isRecordText(record.infectionName.value_or("")) &&
      !record.source.empty() && isRecordText(record.source))
    return true;
  verdict_store_file::fail(
      error, VerdictStoreError::badRecord,
      "A verdict must be one of the safety verdict values, its infection name and source UTF-8 text of at "
      "most 255 bytes without control characters.");
  return false;
}

bool checkEntry(const VerdictStore::Entry& entry, ErrorPtr* error) {
  return checkRecord(entry.second, error);
}

bool checkEntry(const VerdictStore::URLEntry& entry, ErrorPtr* error) {
  return checkURL(entry.first, entry.second, error);
}

bool checkEntry(const VerdictEntry& entry, ErrorPtr* error) {
  const auto* url = std::get_if<std::string>(&entry.first);
  return url == nullptr ? checkRecord(entry.second, error) : checkURL(*url, entry.second, error);
}

void bindKey(SQLiteStatement& statement, const SHA256Value& sha256) {
  statement.bindBytes(1, sha256.data(), sha256.size());
}

void bindKey(SQLiteStatement& statement, const SHA1Value& sha1) {
  statement.bindBytes(1, sha1.data(), sha1.size());
}

void bindKey(SQLiteStatement& statement, const std::string& key) {
  statement.bind(1, std::string_view(key));
}

void bindStretchKey(SQLiteStatement& statement, int parameter, VerdictKind kind, const std::string& bytes) {
  if (kind == VerdictKind::url)
    statement.bind(parameter, std::string_view(bytes));
  else
    statement.bindBytes(parameter, bytes.data(), bytes.size());
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

namespace {

template <class Hash>
Hash hashFrom(const std::string& bytes) {
  Hash hash{};
  std::copy_n(bytes.begin(), std::min(bytes.size(), hash.size()), hash.begin());
  return hash;
}

}  // namespace

VerdictEntry readEntry(const SQLiteStatement& statement, VerdictKind kind) {
  VerdictEntry entry;
  if (kind == VerdictKind::url) {
    readRecord(statement, entry.second);
    entry.first = statement.text(7);
    return entry;
  }
  readRecord(statement, static_cast<StoredVerdict&>(entry.second));
  if (kind == VerdictKind::sha256)
    entry.first = hashFrom<SHA256Value>(statement.bytes(6));
  else
    entry.first = hashFrom<SHA1Value>(statement.bytes(6));
  return entry;
}

int countRows(SQLiteStatement& statement, VerdictStore::Counts& counts) {
  const SQLiteStatementUse use(statement);
  int status = statement.step();
  for (; status == SQLITE_ROW; status = statement.step())
    counts[statement.text(0)] = static_cast<std::uint64_t>(statement.integer(1));
  return status;
}

}  // namespace qm::verdict_records
