// The history's tables and their version. The version is kept in the
// file (PRAGMA user_version), so that a later change of a column knows what
// it migrates from, and a history written by a newer Parlova is known as
// such instead of being written into as if it were ours.
#pragma once

#include <cstdint>
#include <optional>
#include <variant>

#include "platform/SqliteDatabase.h"

namespace parlova {

class HistorySchema {
public:
  // The version this program writes.
  static constexpr int64_t kVersion = 3;

  enum class State {
    Current, // made, migrated, or as this program writes it already
    Newer,   // written by a newer version (or another program): to be read, never written
  };
  // Makes the tables of an empty file, brings an older file's up to this
  // version, or finds a newer one; all in one transaction.
  static std::variant<State, SqliteError> prepare(SqliteDatabase &database);

  // The file's version (0: one from before versions were kept, or empty).
  static std::variant<int64_t, SqliteError> version(SqliteDatabase &database);
};

} // namespace parlova
