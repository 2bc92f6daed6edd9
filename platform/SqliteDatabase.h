// An SQLite database file and its prepared statements, closed and
// finalised when they go. Failures are values: what SQLite said, and
// whether it said that the file is not a sound database.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

struct sqlite3;
struct sqlite3_stmt;

namespace parlova {

struct SqliteError {
  std::string message;
  bool damaged = false; // the file is not a database, or a damaged one
  bool busy = false;    // another connection held it longer than we waited
  bool stopped = false; // it ran past the limit set with limitWork
};

class SqliteStatement {
public:
  SqliteStatement(SqliteStatement &&) noexcept = default;
  SqliteStatement &operator=(SqliteStatement &&) noexcept = default;

  // Parameters count from 1, as in SQL's "?1".
  SqliteStatement &bind(int index, int64_t value);
  SqliteStatement &bind(int index, double value);
  SqliteStatement &bind(int index, std::string_view text);
  SqliteStatement &bindNull(int index);
  // The parameter ":name" (given with its colon); -1, which binds nothing,
  // when the statement has none of that name.
  int parameter(std::string_view name) const;

  // true: a row is there to read; false: done. Or why it failed.
  std::variant<bool, SqliteError> step();
  // Steps to the end, for statements that return no rows.
  std::optional<SqliteError> run();
  void reset();

  // The result column of that name (or alias): rows are read by name, so
  // that a column added to a table moves nothing. -1, which reads as null,
  // when there is none.
  int column(std::string_view name) const;
  int64_t integer(int column) const;
  double real(int column) const;
  std::string text(int column) const;
  bool isNull(int column) const;

  // Statements a reader's connection keeps for their next use.
  struct Kept;

private:
  friend class SqliteDatabase;
  struct Finalizer {
    std::shared_ptr<Kept> keeper; // where the statement goes back, if anywhere
    std::string text;             // what it was prepared from, when kept
    void operator()(sqlite3_stmt *statement) const;
  };
  SqliteStatement(sqlite3 *database, sqlite3_stmt *statement, std::shared_ptr<Kept> keeper = nullptr,
                  std::string text = {})
      : database_(database), statement_(statement, Finalizer{std::move(keeper), std::move(text)}) {}
  sqlite3 *database_;
  std::unique_ptr<sqlite3_stmt, Finalizer> statement_;
};

class SqliteDatabase {
public:
  // Opens the file, made when missing (with `mode`), or says why not.
  static std::variant<SqliteDatabase, SqliteError> open(const std::filesystem::path &file, unsigned mode = 0600);
  // Opens an existing file for reading only, for one thread at a time. Its
  // statements, once let go, are kept for the next prepare() of the same
  // text: a reader answers the same few statements again and again, and
  // preparing one can cost more than running it.
  static std::variant<SqliteDatabase, SqliteError> openForReading(const std::filesystem::path &file);

  SqliteDatabase(SqliteDatabase &&) noexcept = default;
  SqliteDatabase &operator=(SqliteDatabase &&) noexcept = default;

  std::variant<SqliteStatement, SqliteError> prepare(std::string_view sql);
  // One or more statements that return nothing.
  std::optional<SqliteError> execute(const std::string &sql);

  // From now on, statements fail (`stopped`) once `limit` has passed;
  // nothing: no limit again.
  void limitWork(std::optional<std::chrono::milliseconds> limit);

  // Whether a transaction begun on this connection is still open.
  bool inTransaction() const;

private:
  struct Closer {
    std::shared_ptr<SqliteStatement::Kept> kept; // let go before the database closes
    void operator()(sqlite3 *database) const;
  };
  explicit SqliteDatabase(sqlite3 *database, std::shared_ptr<SqliteStatement::Kept> kept = nullptr)
      : database_(database, Closer{std::move(kept)}) {}
  std::unique_ptr<sqlite3, Closer> database_;
  // Where SQLite's progress handler looks, which a move must not change.
  std::unique_ptr<std::chrono::steady_clock::time_point> deadline_;
};

// What SQLite said, for a result code and the database it came from.
SqliteError sqliteError(sqlite3 *database, int code);

} // namespace parlova
