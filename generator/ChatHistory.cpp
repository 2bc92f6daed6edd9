#include "generator/ChatHistory.h"

#include <cmath>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <limits>
#include <map>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <thread>

#include "context/Settings.h"
#include "foundation/Unicode.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

// Chats are found by month and by person with the words summed: both
// indexes cover their queries, so neither reads the table. A chat's hours
// and messages name it by its row number, which costs a byte or three
// where its key would cost twenty, and a message its speaker by a number
// too: the index is most of the file. The index keeps no sizes of its own
// (columnsize=0): ranking, which needs them, reads the few thousand rows it
// ranks instead.
constexpr const char *kSchema = R"sql(
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
)sql";

std::tm localTime(double secondsSince1970) {
  const auto seconds = static_cast<std::time_t>(secondsSince1970);
  std::tm local{};
  localtime_r(&seconds, &local);
  return local;
}

void logFailure(const std::string &what, const SqliteError &error) {
  logFormat("The chat history (%@) could not be %@: %@", ChatHistory::file().string(), what, error.message);
}

// A file SQLite cannot read as a database is kept for whoever wants to
// look at it, and the history starts afresh.
bool setAside() {
  const fs::path damaged = ChatHistory::file().string() + ".damaged";
  std::error_code error;
  fs::rename(ChatHistory::file(), damaged, error);
  for (const char *suffix : {"-journal", "-wal", "-shm"})
    fs::remove(ChatHistory::file().string() + suffix, error);
  if (fileExistsAtPath(ChatHistory::file())) {
    logFormat("The chat history %@ is damaged and could not be set aside.", ChatHistory::file().string());
    return false;
  }
  logFormat("The chat history %@ was damaged; it is kept as %@ and a new one begun.", ChatHistory::file().string(),
            damaged.string());
  return true;
}

} // namespace

ChatRecord ChatRecord::of(const ICLPChatLog &log, const ICLPLogGenerator::ChatCounts &counts, std::string key,
                          fs::path transcript) {
  ChatRecord record;
  record.key = std::move(key);
  record.transcript = std::move(transcript).string();
  const auto participants = log.participants();
  record.group = participants.size() > 1;
  record.displayName = log.primaryOtherParty();
  record.account = participants.size() == 1 && !participants.front()->rawName().empty()
                       ? participants.front()->rawName()
                       : record.displayName;
  for (const auto &participant : participants)
    record.participants.push_back(participant->rawName());
  // Every zone's offset, and every change of it, falls on a quarter hour,
  // so the messages of one quarter hour share one conversion.
  int64_t convertedQuarter = std::numeric_limits<int64_t>::min();
  std::tm local{};
  for (const auto &message : log.messages()) {
    if (message->isStatusMessage())
      continue;
    ++record.messages;
    const auto time = message->TimeStamp();
    record.texts.push_back({time ? std::optional(time->timeIntervalSince1970()) : std::nullopt,
                            message->rawSpeaker().value_or(""), message->Speaker().value_or("(null)"),
                            message->SearchableText()});
    if (time) {
      const double seconds = time->timeIntervalSince1970();
      if (!record.firstTime)
        record.firstTime = seconds;
      if (const auto quarter = static_cast<int64_t>(std::floor(seconds / 900)); quarter != convertedQuarter) {
        local = localTime(seconds);
        convertedQuarter = quarter;
      }
      ++record.slots[static_cast<size_t>(local.tm_wday)][static_cast<size_t>(local.tm_hour)];
    }
  }
  constexpr size_t kLongestFirstLine = 120;
  for (const auto &text : record.texts)
    if (!text.text.empty()) {
      const std::u16string units = utf8ToUtf16(text.text);
      record.firstLine = utf16ToUtf8(units.substr(0, kLongestFirstLine)) +
                         (units.size() > kLongestFirstLine ? "\xE2\x80\xA6" : "");
      break;
    }
  if (const auto last = log.LastMessageDate())
    record.lastTime = last->timeIntervalSince1970();
  record.userWords = counts.user.all;
  record.otherWords = counts.others.all;
  record.userCurses = counts.user.inFirst;
  record.otherCurses = counts.others.inFirst;
  record.userNetspeak = counts.user.inSecond;
  record.otherNetspeak = counts.others.inSecond;
  record.pictures = counts.pictures;
  record.links = counts.links;
  return record;
}

fs::path ChatHistory::file() { return ICLPLogGenerator::parlovaFolder() / "history.sqlite"; }

bool ChatHistory::wanted() {
  Preferences &settings = appSettings();
  return settings.boolValue("keepHistory") || settings.boolValue("keepChatPages");
}

std::optional<ChatHistory> ChatHistory::opened(bool create) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto database = SqliteDatabase::open(file());
    if (auto *error = std::get_if<SqliteError>(&database)) {
      if (error->damaged && attempt == 0 && setAside())
        continue;
      logFailure("opened", *error);
      return std::nullopt;
    }
    auto &opened = std::get<SqliteDatabase>(database);
    const auto failed = create ? opened.execute(kSchema) : opened.execute("SELECT count(*) FROM chats");
    if (!failed)
      return ChatHistory(std::move(opened));
    if (failed->damaged && attempt == 0) {
      if (setAside())
        continue;
    } else if (create) {
      logFailure("opened", *failed);
    }
    return std::nullopt;
  }
  return std::nullopt;
}

std::optional<ChatHistory> ChatHistory::open() {
  fs::create_directories(file().parent_path());
  return opened(true);
}

std::optional<ChatHistory> ChatHistory::openExisting() {
  if (!fileExistsAtPath(file()))
    return std::nullopt;
  return opened(false);
}

// One open transaction of additions, with its statements prepared once.
//
// The rows are written on a thread of their own: SQLite's share of a
// catch-up (tokenizing every message into the index) then runs beside the
// decoding and archiving of the next transcripts instead of after them.
// From start() until finish() the connection and everything below belong
// to that thread; the caller only hands it records. A failure there is
// only noted: it is logged, rolled back and set aside on the caller's
// thread, which owns the log's status line.
struct ChatHistory::Additions::Writing {
  explicit Writing(ChatHistory opened) : history(std::move(opened)) {}
  ~Writing() {
    finish();
    if (open)
      history->database_.execute("ROLLBACK");
  }

  void start() {
    // Stop signals are the catch-up's to take, not this thread's.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    try {
      writer = std::thread([this] { writeQueued(); });
    } catch (const std::system_error &) {
      // No thread to be had (a process limit): enqueue() then writes
      // each chat on the caller's thread, slower but the same.
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  // False when an earlier record has failed: the batch is lost anyway.
  bool enqueue(ChatRecord record) {
    if (!writer.joinable()) {
      if (!failure)
        failure = add(record);
      return !failure;
    }
    std::unique_lock lock(mutex);
    room.wait(lock, [&] { return queue.size() < kAhead || failure; });
    if (failure)
      return false;
    queue.push_back(std::move(record));
    // Woken for a handful at a time: waking a thread on another processor
    // costs more on a virtual machine than writing a short chat.
    if (queue.size() == kWakeAt)
      queued.notify_one();
    return true;
  }

  // Waits for the queued records; the writer's failure, if any.
  std::optional<SqliteError> finish() {
    if (writer.joinable()) {
      {
        std::lock_guard lock(mutex);
        closing = true;
      }
      queued.notify_one();
      writer.join();
    }
    return failure;
  }

  void writeQueued() {
    std::vector<ChatRecord> taken;
    std::unique_lock lock(mutex);
    while (true) {
      queued.wait(lock, [&] { return queue.size() >= kWakeAt || closing; });
      if (queue.empty())
        return;
      taken.swap(queue);
      room.notify_one();
      lock.unlock();
      std::optional<SqliteError> failed;
      try {
        for (const ChatRecord &record : taken)
          if ((failed = add(record)))
            break;
      } catch (const std::exception &error) {
        failed = SqliteError{error.what()};
      }
      taken.clear();
      lock.lock();
      if (failed) {
        // The rest of the batch is lost with it: the caller hears of it
        // at its next add() or at commit().
        failure = std::move(failed);
        room.notify_one();
        return;
      }
    }
  }

  // Enough chats waiting to be worth a wake-up, and a few more: beyond
  // that the caller waits rather than holding their texts in memory.
  static constexpr size_t kWakeAt = 16;
  static constexpr size_t kAhead = 4 * kWakeAt;

  std::optional<SqliteError> prepare() {
    SqliteDatabase &database = history->database_;
    const auto prepared = [&](std::optional<SqliteStatement> &into, std::string_view sql) -> std::optional<SqliteError> {
      auto made = database.prepare(sql);
      if (auto *error = std::get_if<SqliteError>(&made))
        return *error;
      into.emplace(std::move(std::get<SqliteStatement>(made)));
      return std::nullopt;
    };
    // A batch's pages stay in memory until it commits, instead of spilling
    // into the file early and holding readers off for the rest of it.
    if (auto failed = database.execute("PRAGMA cache_size = -65536"))
      return failed;
    for (const auto &[into, sql] : std::initializer_list<std::pair<std::optional<SqliteStatement> *, const char *>>{
             {&chat, "INSERT OR IGNORE INTO chats VALUES (NULL, ?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, "
                     "?13, ?14, ?15, ?16, ?17, ?18, ?19, ?20)"},
             {&slot, "INSERT OR IGNORE INTO slots VALUES (?1, ?2, ?3, ?4)"},
             {&message, "INSERT INTO texts VALUES (?1, ?2, ?3, ?4)"},
             {&speaker, "INSERT OR IGNORE INTO speakers (account, name) VALUES (?1, ?2)"},
             {&speakerId, "SELECT id FROM speakers WHERE account = ?1 AND name = ?2"},
             {&changes, "SELECT changes(), last_insert_rowid()"},
             // A chat kept before the library was asked for gets its page later.
             {&paged, "UPDATE chats SET page = ?2 WHERE key = ?1 AND page IS NULL"}})
      if (auto failed = prepared(*into, sql))
        return failed;
    if (auto failed = database.execute("BEGIN IMMEDIATE"))
      return failed;
    open = true;
    return std::nullopt;
  }

  std::variant<int64_t, SqliteError> speakerOf(const ChatRecord::Message &text) {
    const auto known = speakers.find({text.account, text.speaker});
    if (known != speakers.end())
      return known->second;
    if (auto failed = speaker->bind(1, text.account).bind(2, text.speaker).run())
      return *failed;
    speakerId->bind(1, text.account).bind(2, text.speaker);
    const auto step = speakerId->step();
    if (const auto *error = std::get_if<SqliteError>(&step))
      return *error;
    const int64_t id = speakerId->integer(0);
    speakerId->reset();
    speakers.emplace(std::pair(text.account, text.speaker), id);
    return id;
  }

  std::optional<SqliteError> add(const ChatRecord &record) {
    std::string participants;
    for (const std::string &account : record.participants)
      participants += account + "\n";
    chat->bind(1, record.key).bind(2, record.transcript).bind(3, participants).bind(4, record.account);
    chat->bind(5, record.displayName).bind(6, int64_t{record.group});
    if (record.firstTime) {
      const std::tm local = localTime(*record.firstTime);
      chat->bind(7, *record.firstTime).bind(9, int64_t{local.tm_year + 1900} * 12 + local.tm_mon);
    }
    if (record.lastTime)
      chat->bind(8, *record.lastTime);
    const int64_t counts[] = {record.messages,      record.userWords,    record.otherWords,
                              record.userCurses,    record.otherCurses,  record.userNetspeak,
                              record.otherNetspeak, record.links,        record.pictures};
    for (int i = 0; i < 9; ++i)
      chat->bind(10 + i, counts[i]);
    chat->bind(19, record.firstLine);
    if (record.page)
      chat->bind(20, *record.page);
    if (auto failed = chat->run())
      return failed;
    const auto step = changes->step();
    const bool isNew = std::holds_alternative<bool>(step) && changes->integer(0) > 0;
    const int64_t id = changes->integer(1);
    changes->reset();
    if (!isNew)
      return record.page ? paged->bind(1, record.key).bind(2, *record.page).run() : std::nullopt;
    ++added;
    for (int day = 0; day < 7; ++day)
      for (int hour = 0; hour < 24; ++hour)
        if (const int64_t messages = record.slots[day][hour]; messages > 0)
          if (auto failed = slot->bind(1, id).bind(2, int64_t{day}).bind(3, int64_t{hour}).bind(4, messages).run())
            return failed;
    // A chat's messages follow each other in the index, so the ones around
    // a hit are its neighbours by row. Times in whole seconds.
    for (const ChatRecord::Message &text : record.texts) {
      const auto who = speakerOf(text);
      if (const auto *error = std::get_if<SqliteError>(&who))
        return *error;
      message->bind(1, text.text).bind(2, id);
      if (text.time)
        message->bind(3, static_cast<int64_t>(std::floor(*text.time)));
      if (auto failed = message->bind(4, std::get<int64_t>(who)).run())
        return failed;
    }
    return std::nullopt;
  }

  // Gives up the batch: nothing of it is kept, and a damaged file is set
  // aside for the next try.
  void abandon(const SqliteError &error) {
    logFailure("written", error);
    if (open)
      history->database_.execute("ROLLBACK");
    open = false;
    failed = true;
    if (error.damaged) {
      for (auto *statement : {&chat, &slot, &message, &speaker, &speakerId, &changes, &paged})
        statement->reset();
      history.reset();
      setAsideDamaged = setAside();
    }
  }

  std::thread writer;
  std::mutex mutex;
  std::condition_variable queued, room;
  std::vector<ChatRecord> queue;
  bool closing = false;
  std::optional<SqliteError> failure;

  std::optional<ChatHistory> history;
  bool open = false;
  bool failed = false;
  bool setAsideDamaged = false;
  size_t added = 0;
  std::optional<SqliteStatement> chat, slot, message, speaker, speakerId, changes, paged;
  std::map<std::pair<std::string, std::string>, int64_t> speakers;
};

ChatHistory::Additions::Additions(std::unique_ptr<Writing> writing) : writing_(std::move(writing)) {}
ChatHistory::Additions::Additions(Additions &&) noexcept = default;
ChatHistory::Additions &ChatHistory::Additions::operator=(Additions &&) noexcept = default;
ChatHistory::Additions::~Additions() = default;

std::optional<ChatHistory::Additions> ChatHistory::Additions::begin() {
  auto history = open();
  if (!history)
    return std::nullopt;
  auto writing = std::make_unique<Writing>(std::move(*history));
  if (const auto failed = writing->prepare()) {
    writing->abandon(*failed);
    return std::nullopt;
  }
  writing->start();
  return Additions(std::move(writing));
}

bool ChatHistory::Additions::add(ChatRecord record) {
  if (writing_->failed)
    return false;
  if (!writing_->enqueue(std::move(record))) {
    writing_->abandon(*writing_->finish());
    return false;
  }
  return true;
}

bool ChatHistory::Additions::setAsideDamaged() const { return writing_->setAsideDamaged; }

std::optional<size_t> ChatHistory::Additions::commit() {
  if (writing_->failed)
    return std::nullopt;
  if (const auto failed = writing_->finish()) {
    writing_->abandon(*failed);
    return std::nullopt;
  }
  if (const auto failed = writing_->history->database_.execute("COMMIT")) {
    writing_->abandon(*failed);
    return std::nullopt;
  }
  writing_->open = false;
  writing_->failed = true; // one commit a batch
  return writing_->added;
}

std::optional<size_t> ChatHistory::store(const std::vector<ChatRecord> &records) {
  if (records.empty())
    return size_t{0};
  // A database found damaged on the way is set aside; the chats then go
  // into a new one.
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto additions = Additions::begin();
    if (!additions)
      return std::nullopt;
    for (const ChatRecord &record : records)
      if (!additions->add(record))
        break;
    if (const auto added = additions->commit())
      return added;
    if (!additions->setAsideDamaged())
      return std::nullopt;
  }
  return std::nullopt;
}

std::optional<std::vector<LibraryChat>> ChatHistory::library() {
  auto prepared = database_.prepare("SELECT account, display_name, first_time, last_time, messages, "
                                    "user_words + other_words, first_line, page FROM chats WHERE page IS NOT NULL "
                                    "ORDER BY account, first_time");
  if (auto *error = std::get_if<SqliteError>(&prepared)) {
    logFailure("read", *error);
    return std::nullopt;
  }
  auto &statement = std::get<SqliteStatement>(prepared);
  std::vector<LibraryChat> chats;
  while (true) {
    const auto step = statement.step();
    if (auto *error = std::get_if<SqliteError>(&step)) {
      logFailure("read", *error);
      return std::nullopt;
    }
    if (!std::get<bool>(step))
      return chats;
    LibraryChat chat{statement.text(0), statement.text(1), std::nullopt, std::nullopt, statement.integer(4),
                     statement.integer(5), statement.text(6), statement.text(7)};
    if (!statement.isNull(2))
      chat.firstTime = statement.real(2);
    if (!statement.isNull(3))
      chat.lastTime = statement.real(3);
    chats.push_back(std::move(chat));
  }
}

std::optional<HistorySummary> ChatHistory::summary() {
  HistorySummary summary;
  const auto query = [&](std::string_view sql, auto &&row) -> bool {
    auto prepared = database_.prepare(sql);
    if (auto *error = std::get_if<SqliteError>(&prepared)) {
      logFailure("read", *error);
      return false;
    }
    auto &statement = std::get<SqliteStatement>(prepared);
    while (true) {
      const auto step = statement.step();
      if (auto *error = std::get_if<SqliteError>(&step)) {
        logFailure("read", *error);
        return false;
      }
      if (!std::get<bool>(step))
        return true;
      row(statement);
    }
  };
  const bool read =
      query("SELECT count(*), min(first_time), max(last_time) FROM chats",
            [&](SqliteStatement &row) {
              summary.chats = row.integer(0);
              if (!row.isNull(1))
                summary.firstTime = row.real(1);
              if (!row.isNull(2))
                summary.lastTime = row.real(2);
            }) &&
      query("SELECT month, count(*), sum(user_words + other_words) FROM chats WHERE month IS NOT NULL "
            "GROUP BY month ORDER BY month",
            [&](SqliteStatement &row) {
              const int64_t month = row.integer(0);
              summary.months.push_back({static_cast<int>(month / 12), static_cast<int>(month % 12) + 1,
                                        row.integer(1), row.integer(2)});
            }) &&
      // The name shown is the one of the latest chat (SQLite takes the
      // other columns from the row that gave the max()).
      query("SELECT display_name, max(last_time), sum(user_words), sum(other_words) FROM chats "
            "GROUP BY account ORDER BY sum(user_words) + sum(other_words) DESC, account LIMIT 15",
            [&](SqliteStatement &row) { summary.people.push_back({row.text(0), row.integer(2), row.integer(3)}); }) &&
      query("SELECT weekday, hour, sum(messages) FROM slots GROUP BY weekday, hour", [&](SqliteStatement &row) {
        const int64_t day = row.integer(0), hour = row.integer(1);
        if (day >= 0 && day < 7 && hour >= 0 && hour < 24)
          summary.slots[static_cast<size_t>(day)][static_cast<size_t>(hour)] = row.integer(2);
      });
  if (!read)
    return std::nullopt;
  return summary;
}

} // namespace parlova
