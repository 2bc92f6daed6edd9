#include "history/HistorySchema.h"

#include <iterator>
#include <string>

namespace parlova {

namespace {

// Each version's tables, made from the one before (from an empty file for
// the first): kMigrations[n] takes a file of version n to version n + 1.
//
// Version 1, what a history held before versions were kept (version 0)
// already: chats are found by month and by person with the words summed,
// and both indexes cover their queries, so neither reads the table. A
// chat's hours and messages name it by its row number, which costs a byte
// or three where its key would cost twenty, and a message its speaker by a
// number too: the index is most of the file. The index keeps no sizes of
// its own (columnsize=0): ranking, which needs them, reads the few thousand
// rows it ranks instead.
constexpr const char *kMigrations[] = {R"sql(
CREATE TABLE IF NOT EXISTS chats (
  id INTEGER PRIMARY KEY,
  key TEXT NOT NULL UNIQUE,
  transcript TEXT NOT NULL,
  participants TEXT NOT NULL,
  account TEXT NOT NULL,
  display_name TEXT NOT NULL,
  is_group INTEGER NOT NULL,
  first_time REAL,
  last_time REAL,
  month INTEGER,
  messages INTEGER NOT NULL,
  user_words INTEGER NOT NULL,
  other_words INTEGER NOT NULL,
  user_curses INTEGER NOT NULL,
  other_curses INTEGER NOT NULL,
  user_netspeak INTEGER NOT NULL,
  other_netspeak INTEGER NOT NULL,
  links INTEGER NOT NULL,
  pictures INTEGER NOT NULL,
  first_line TEXT NOT NULL,
  page TEXT
);
CREATE TABLE IF NOT EXISTS slots (
  chat INTEGER NOT NULL,
  weekday INTEGER NOT NULL,
  hour INTEGER NOT NULL,
  messages INTEGER NOT NULL,
  PRIMARY KEY (chat, weekday, hour)
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS speakers (
  id INTEGER PRIMARY KEY,
  account TEXT NOT NULL,
  name TEXT NOT NULL,
  UNIQUE (account, name)
);
CREATE VIRTUAL TABLE IF NOT EXISTS texts USING fts5 (
  text, chat UNINDEXED, time UNINDEXED, speaker UNINDEXED,
  tokenize = 'unicode61 remove_diacritics 2', columnsize = 0
);
CREATE INDEX IF NOT EXISTS chats_by_month ON chats (month, user_words, other_words);
CREATE INDEX IF NOT EXISTS chats_by_account ON chats (account, user_words, other_words, last_time, display_name);
)sql",
// Version 2: a sent file's name had been indexed glued to the word before
// it ("seepic2916.png"). The chats that sent files wait in `reindex` until
// a rebuild reads them again and puts their messages in anew.
R"sql(
CREATE TABLE IF NOT EXISTS reindex (chat INTEGER PRIMARY KEY);
INSERT OR IGNORE INTO reindex (chat) SELECT id FROM chats WHERE pictures > 0;
)sql",
// Version 3: where a chat's messages begin in the index, so that a reader
// finds any stretch of a chat by row numbers alone (the index cannot be
// searched by chat). Its rows follow each other, one for each message.
R"sql(
ALTER TABLE chats ADD COLUMN first_row INTEGER;
CREATE TEMP TABLE first_rows (chat INTEGER PRIMARY KEY, first INTEGER NOT NULL);
INSERT INTO first_rows SELECT chat, min(rowid) FROM texts GROUP BY chat;
UPDATE chats SET first_row = (SELECT first FROM first_rows WHERE first_rows.chat = chats.id);
DROP TABLE first_rows;
)sql"};

static_assert(std::size(kMigrations) == HistorySchema::kVersion);

} // namespace

std::variant<int64_t, SqliteError> HistorySchema::version(SqliteDatabase &database) {
  auto prepared = database.prepare("PRAGMA user_version");
  if (auto *error = std::get_if<SqliteError>(&prepared))
    return *error;
  auto &statement = std::get<SqliteStatement>(prepared);
  const auto step = statement.step();
  if (const auto *error = std::get_if<SqliteError>(&step))
    return *error;
  return statement.integer(0);
}

std::variant<HistorySchema::State, SqliteError> HistorySchema::prepare(SqliteDatabase &database) {
  auto found = version(database);
  if (const auto *error = std::get_if<SqliteError>(&found))
    return *error;
  // A version below 0 is none this program ever wrote either.
  if (std::get<int64_t>(found) > kVersion || std::get<int64_t>(found) < 0)
    return State::Newer;
  if (std::get<int64_t>(found) == kVersion)
    return State::Current;
  // Another run may be migrating the same file: the version is read again
  // under the write lock.
  if (auto failed = database.execute("BEGIN IMMEDIATE"))
    return *failed;
  const auto outcome = [&]() -> std::variant<State, SqliteError> {
    const auto locked = version(database);
    if (const auto *error = std::get_if<SqliteError>(&locked))
      return *error;
    if (std::get<int64_t>(locked) > kVersion || std::get<int64_t>(locked) < 0)
      return State::Newer;
    for (int64_t from = std::get<int64_t>(locked); from < kVersion; ++from)
      if (auto failed = database.execute(kMigrations[from]))
        return *failed;
    if (auto failed = database.execute("PRAGMA user_version = " + std::to_string(kVersion) + "; COMMIT"))
      return *failed;
    return State::Current;
  }();
  if (!std::holds_alternative<State>(outcome) || std::get<State>(outcome) == State::Newer)
    database.execute("ROLLBACK");
  return outcome;
}

} // namespace parlova
