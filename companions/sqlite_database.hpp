// A thin owner of SQLite's connection and statement. Used by the verdict store only: one connection and its
// statements belong to one thread at a time, whoever uses them holds a lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace qm {

class SQLiteStatement {
 public:
  SQLiteStatement() = default;
  explicit SQLiteStatement(sqlite3_stmt* statement) : statement_(statement) {}

  explicit operator bool() const { return statement_ != nullptr; }

  // Parameters count from 1. Text and bytes are copied.
  void bind(int parameter, std::int64_t value);
  void bind(int parameter, std::string_view text);
  void bindBytes(int parameter, const void* bytes, std::size_t length);
  void bindNull(int parameter);

  // SQLITE_ROW, SQLITE_DONE or the extended code of an error.
  int step();
  // Makes it ready for the next use and ends the read transaction it holds.
  void reset();

  // Columns of the current row, counted from 0.
  std::int64_t integer(int column) const;
  std::string text(int column) const;
  std::string bytes(int column) const;
  bool isNull(int column) const;

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const;
  };
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// Resets a statement at the end of a scope, on every way out.
class SQLiteStatementUse {
 public:
  explicit SQLiteStatementUse(SQLiteStatement& statement) : statement_(statement) {}
  ~SQLiteStatementUse() { statement_.reset(); }
  SQLiteStatementUse(const SQLiteStatementUse&) = delete;
  SQLiteStatementUse& operator=(const SQLiteStatementUse&) = delete;

 private:
  SQLiteStatement& statement_;
};

// What went wrong with a database, kept for a message.
struct SQLiteFailure {
  int status = 0;      // an extended result code
  std::string detail;  // SQLite's text
  int errorNumber =
      0;  // errno of the system call that failed last on this connection; it may be an older one
};

class SQLiteDatabase {
 public:
  SQLiteDatabase() = default;

  // All return SQLITE_OK or an extended result code (https://sqlite.org/rescode.html).
  int open(const std::string& path, int flags);
  int execute(const char* sql);
  int prepare(const char* sql, SQLiteStatement& statement);
  // The first column of the first row.
  int queryInteger(const char* sql, std::int64_t& value);

  // The last failure, which gave the status.
  SQLiteFailure failure(int status) const;
  // Rows changed by the last statement.
  int changes() const;

 private:
  struct Close {
    void operator()(sqlite3* database) const;
  };
  std::unique_ptr<sqlite3, Close> database_;
};

}  // namespace qm
