#include "platform/SqliteDatabase.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sqlite3.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

namespace parlova {

namespace {

// SQLite counts every allocation under one lock of the whole process unless
// told not to before its first use. Nothing here reads the counts, and the
// web view's readers on several threads would take turns on that lock.
void configureSqliteOnce() {
  static std::once_flag once;
  std::call_once(once, [] { sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0); });
}

} // namespace

SqliteError sqliteError(sqlite3 *database, int code) {
  const int primary = code & 0xFF;
  const char *message = database ? sqlite3_errmsg(database) : sqlite3_errstr(code);
  std::string text = message ? message : sqlite3_errstr(code);
  // "disk I/O error" or "database or disk is full" say less than the
  // system's own reason.
  int system = database ? sqlite3_system_errno(database) : 0;
  if (system == 0 && primary == SQLITE_FULL)
    system = ENOSPC;
  if (system != 0)
    text += std::string(" (") + std::strerror(system) + ")";
  return {text, primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB, primary == SQLITE_BUSY || primary == SQLITE_LOCKED,
          primary == SQLITE_INTERRUPT};
}

// Reset, with nothing bound, and holding no read of the file open. Bounded:
// statement texts come from the program, but a few are put together from
// the conditions a request asks for.
struct SqliteStatement::Kept {
  static constexpr size_t kMost = 64;
  bool closed = false;
  std::unordered_multimap<std::string, sqlite3_stmt *> statements;

  ~Kept() { finalizeAll(); }
  void finalizeAll() {
    for (auto &[text, statement] : statements)
      sqlite3_finalize(statement);
    statements.clear();
  }
};

void SqliteStatement::Finalizer::operator()(sqlite3_stmt *statement) const {
  if (!keeper || keeper->closed || keeper->statements.size() >= Kept::kMost) {
    sqlite3_finalize(statement);
    return;
  }
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  keeper->statements.emplace(text, statement);
}

void SqliteDatabase::Closer::operator()(sqlite3 *database) const {
  if (kept) {
    kept->closed = true;
    kept->finalizeAll();
  }
  sqlite3_close_v2(database);
}

SqliteStatement &SqliteStatement::bind(int index, int64_t value) {
  sqlite3_bind_int64(statement_.get(), index, value);
  return *this;
}

SqliteStatement &SqliteStatement::bind(int index, double value) {
  sqlite3_bind_double(statement_.get(), index, value);
  return *this;
}

SqliteStatement &SqliteStatement::bind(int index, std::string_view text) {
  sqlite3_bind_text64(statement_.get(), index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  return *this;
}

SqliteStatement &SqliteStatement::bindNull(int index) {
  sqlite3_bind_null(statement_.get(), index);
  return *this;
}

int SqliteStatement::parameter(std::string_view name) const {
  const int index = sqlite3_bind_parameter_index(statement_.get(), std::string(name).c_str());
  return index > 0 ? index : -1;
}

int SqliteStatement::column(std::string_view name) const {
  const int count = sqlite3_column_count(statement_.get());
  for (int i = 0; i < count; ++i)
    if (const char *named = sqlite3_column_name(statement_.get(), i); named && name == named)
      return i;
  return -1;
}

std::variant<bool, SqliteError> SqliteStatement::step() {
  const int code = sqlite3_step(statement_.get());
  if (code == SQLITE_ROW)
    return true;
  if (code == SQLITE_DONE)
    return false;
  SqliteError error = sqliteError(database_, code);
  sqlite3_reset(statement_.get());
  return error;
}

std::optional<SqliteError> SqliteStatement::run() {
  while (true) {
    auto stepped = step();
    if (auto *error = std::get_if<SqliteError>(&stepped))
      return *error;
    if (!std::get<bool>(stepped)) {
      reset();
      return std::nullopt;
    }
  }
}

void SqliteStatement::reset() {
  sqlite3_reset(statement_.get());
  sqlite3_clear_bindings(statement_.get());
}

// A column that is not there (-1) reads as null: SQLite leaves reading one
// undefined.
int64_t SqliteStatement::integer(int column) const {
  return column < 0 ? 0 : sqlite3_column_int64(statement_.get(), column);
}

double SqliteStatement::real(int column) const { return column < 0 ? 0 : sqlite3_column_double(statement_.get(), column); }

std::string SqliteStatement::text(int column) const {
  if (column < 0)
    return "";
  const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(statement_.get(), column));
  return bytes ? std::string(bytes, static_cast<size_t>(sqlite3_column_bytes(statement_.get(), column))) : "";
}

bool SqliteStatement::isNull(int column) const {
  return column < 0 || sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
}

std::variant<SqliteDatabase, SqliteError> SqliteDatabase::open(const std::filesystem::path &file, unsigned mode) {
  // SQLite makes a new file with the process's umask; the mode is set by
  // making it first.
  if (const int made = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode); made >= 0)
    close(made);
  configureSqliteOnce();
  sqlite3 *handle = nullptr;
  const int code = sqlite3_open_v2(file.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  SqliteDatabase database(handle);
  if (code != SQLITE_OK)
    return sqliteError(handle, code);
  sqlite3_extended_result_codes(handle, 1);
  // Another run may hold the file a moment (a catch-up's commit).
  sqlite3_busy_timeout(handle, 10000);
  return database;
}

std::variant<SqliteDatabase, SqliteError> SqliteDatabase::openForReading(const std::filesystem::path &file) {
  configureSqliteOnce();
  sqlite3 *handle = nullptr;
  // A reader's connection is used by one thread at a time: SQLite's own
  // locks around each call would be work for nothing.
  const int code = sqlite3_open_v2(file.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
  SqliteDatabase database(handle, std::make_shared<SqliteStatement::Kept>());
  if (code != SQLITE_OK)
    return sqliteError(handle, code);
  sqlite3_extended_result_codes(handle, 1);
  sqlite3_busy_timeout(handle, 10000);
  return database;
}

std::variant<SqliteStatement, SqliteError> SqliteDatabase::prepare(std::string_view sql) {
  const auto &kept = database_.get_deleter().kept;
  if (kept) {
    if (auto found = kept->statements.extract(std::string(sql)); !found.empty())
      return SqliteStatement(database_.get(), found.mapped(), kept, std::move(found.key()));
  }
  sqlite3_stmt *statement = nullptr;
  const int code = sqlite3_prepare_v2(database_.get(), sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
  if (code != SQLITE_OK) {
    sqlite3_finalize(statement);
    return sqliteError(database_.get(), code);
  }
  return SqliteStatement(database_.get(), statement, kept, kept ? std::string(sql) : std::string());
}

void SqliteDatabase::limitWork(std::optional<std::chrono::milliseconds> limit) {
  if (!limit) {
    sqlite3_progress_handler(database_.get(), 0, nullptr, nullptr);
    deadline_.reset();
    return;
  }
  deadline_ = std::make_unique<std::chrono::steady_clock::time_point>(std::chrono::steady_clock::now() + *limit);
  // A few thousand steps of SQLite's machine take a few microseconds.
  sqlite3_progress_handler(
      database_.get(), 4000,
      [](void *deadline) {
        return std::chrono::steady_clock::now() > *static_cast<std::chrono::steady_clock::time_point *>(deadline) ? 1
                                                                                                                 : 0;
      },
      deadline_.get());
}

bool SqliteDatabase::inTransaction() const { return sqlite3_get_autocommit(database_.get()) == 0; }

std::optional<SqliteError> SqliteDatabase::execute(const std::string &sql) {
  const int code = sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr);
  if (code != SQLITE_OK)
    return sqliteError(database_.get(), code);
  return std::nullopt;
}

} // namespace parlova
