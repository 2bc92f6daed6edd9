// Connections that only read the history, one for each request being
// answered at a time: a connection is not shared between threads, and
// opening one for each request would cost more than the query. As many
// requests read at once as there are processors: more would only take
// turns on them, each slower for the others' caches and switches.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/SqliteDatabase.h"

namespace parlova {

class ReadConnections {
public:
  // `workLimit`: how long one request's statements may run; `atOnce`:
  // how many requests read at the same time.
  ReadConnections(std::filesystem::path file, std::chrono::milliseconds workLimit, size_t atOnce)
      : file_(std::move(file)), workLimit_(workLimit), atOnce_(atOnce) {}

  class Lease {
  public:
    Lease(ReadConnections &pool, std::unique_ptr<SqliteDatabase> database)
        : pool_(pool), database_(std::move(database)) {}
    Lease(Lease &&) = default;
    ~Lease();
    SqliteDatabase &database() { return *database_; }

  private:
    ReadConnections &pool_;
    std::unique_ptr<SqliteDatabase> database_;
  };

  // A connection, once one of the turns is free, its time limit counting
  // from then; or why there is none (no history yet, or one that cannot be
  // opened).
  std::variant<Lease, std::string> lease();

  const std::filesystem::path &file() const { return file_; }

private:
  std::filesystem::path file_;
  std::chrono::milliseconds workLimit_;
  size_t atOnce_;
  size_t reading_ = 0;
  std::condition_variable turnFree_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<SqliteDatabase>> idle_;
};

} // namespace parlova
