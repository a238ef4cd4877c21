#include "companions/sqlite_database.hpp"

#include <sqlite3.h>

namespace qm {

void SQLiteStatement::Finalize::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

void SQLiteStatement::bind(int parameter, std::int64_t value) {
  sqlite3_bind_int64(statement_.get(), parameter, value);
}

void SQLiteStatement::bind(int parameter, std::string_view text) {
  sqlite3_bind_text64(statement_.get(), parameter, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void SQLiteStatement::bindBytes(int parameter, const void* bytes, std::size_t length) {
  sqlite3_bind_blob64(statement_.get(), parameter, bytes, length, SQLITE_TRANSIENT);
}

void SQLiteStatement::bindNull(int parameter) {
  sqlite3_bind_null(statement_.get(), parameter);
}

int SQLiteStatement::step() {
  return sqlite3_step(statement_.get());
}

void SQLiteStatement::reset() {
  sqlite3_reset(statement_.get());
  sqlite3_clear_bindings(statement_.get());
}

std::int64_t SQLiteStatement::integer(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

std::string SQLiteStatement::text(int column) const {
  const unsigned char* text = sqlite3_column_text(statement_.get(), column);
  const int length = sqlite3_column_bytes(statement_.get(), column);
  if (text == nullptr || length <= 0) return {};
  return {reinterpret_cast<const char*>(text), static_cast<std::size_t>(length)};
}

std::string SQLiteStatement::bytes(int column) const {
  const void* bytes = sqlite3_column_blob(statement_.get(), column);
  const int length = sqlite3_column_bytes(statement_.get(), column);
  if (bytes == nullptr || length <= 0) return {};
  return {static_cast<const char*>(bytes), static_cast<std::size_t>(length)};
}

bool SQLiteStatement::isNull(int column) const {
  return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

void SQLiteDatabase::Close::operator()(sqlite3* database) const {
  sqlite3_close_v2(database);
}

int SQLiteDatabase::open(const std::string& path, int flags) {
  sqlite3* database = nullptr;
  const int status = sqlite3_open_v2(path.c_str(), &database, flags, nullptr);
  database_.reset(database);  // there is one even when opening failed
  if (status == SQLITE_OK) sqlite3_extended_result_codes(database, 1);
  return status;
}

int SQLiteDatabase::execute(const char* sql) {
  return sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr);
}

int SQLiteDatabase::prepare(const char* sql, SQLiteStatement& statement) {
  sqlite3_stmt* prepared = nullptr;
  const int status =
      sqlite3_prepare_v3(database_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
  statement = SQLiteStatement(prepared);
  return status;
}

int SQLiteDatabase::queryInteger(const char* sql, std::int64_t& value) {
  SQLiteStatement statement;
  if (const int status = prepare(sql, statement); status != SQLITE_OK) return status;
  const int status = statement.step();
  if (status != SQLITE_ROW) return status == SQLITE_DONE ? SQLITE_NOTFOUND : status;
  value = statement.integer(0);
  return SQLITE_OK;
}

SQLiteFailure SQLiteDatabase::failure(int status) const {
  if (database_ == nullptr) return {status, "out of memory"};
  return {status, sqlite3_errmsg(database_.get()), sqlite3_system_errno(database_.get())};
}

int SQLiteDatabase::changes() const {
  return sqlite3_changes(database_.get());
}

}  // namespace qm
