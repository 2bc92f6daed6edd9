#include "web/ReadConnections.h"

namespace parlova {

namespace {

std::optional<SqliteError> runKept(SqliteDatabase &database, std::string_view sql) {
  auto prepared = database.prepare(sql);
  if (auto *error = std::get_if<SqliteError>(&prepared))
    return *error;
  return std::get<SqliteStatement>(prepared).run();
}

bool endSnapshot(SqliteDatabase &database) {
  if (!database.inTransaction())
    return true;
  if (runKept(database, "COMMIT") && database.inTransaction())
    runKept(database, "ROLLBACK");
  return !database.inTransaction();
}

} // namespace

ReadConnections::Lease::~Lease() {
  if (!database_)
    return;
  database_->limitWork(std::nullopt);
  // The request's snapshot ends here, whatever became of its statements; a
  // connection that still holds one would keep every later request on it
  // in the past, so it is closed instead.
  if (!endSnapshot(*database_))
    database_.reset();
  {
    const std::lock_guard lock(pool_.mutex_);
    if (database_)
      pool_.idle_.push_back(std::move(database_));
    --pool_.reading_;
  }
  pool_.turnFree_.notify_one();
}

std::variant<ReadConnections::Lease, std::string> ReadConnections::lease() {
  std::unique_ptr<SqliteDatabase> database;
  {
    std::unique_lock lock(mutex_);
    turnFree_.wait(lock, [this] { return reading_ < atOnce_; });
    ++reading_;
    if (!idle_.empty()) {
      database = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  // The turn goes back with the connection, or here when none is made.
  const auto giveBack = [this] {
    {
      const std::lock_guard lock(mutex_);
      --reading_;
    }
    turnFree_.notify_one();
  };
  if (!database) {
    std::error_code error;
    if (!std::filesystem::exists(file_, error)) {
      giveBack();
      return std::string("There is no index of the chats yet: parlova --rebuild-history makes it.");
    }
    auto opened = SqliteDatabase::openForReading(file_);
    if (auto *failure = std::get_if<SqliteError>(&opened)) {
      giveBack();
      return "The chat history cannot be read: " + failure->message;
    }
    database = std::make_unique<SqliteDatabase>(std::move(std::get<SqliteDatabase>(opened)));
    // A writer holds the file for a moment at a time; waiting long for
    // it would hold the page up instead. A megabyte of pages each: the
    // system's file cache holds the rest, for every connection at once.
    database->execute("PRAGMA busy_timeout = 2000; PRAGMA cache_size = -1000");
  }
  // One snapshot for all of a request's statements: a count and the hits it
  // counts agree while a catch-up writes, and the file's read lock is taken
  // once rather than for each statement.
  if (const auto failed = runKept(*database, "BEGIN")) {
    giveBack();
    return "The chat history cannot be read: " + failed->message;
  }
  database->limitWork(workLimit_);
  return Lease(*this, std::move(database));
}

} // namespace parlova
