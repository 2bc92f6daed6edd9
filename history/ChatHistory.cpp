#include "history/ChatHistory.h"

#include <cmath>
#include <condition_variable>
#include <csignal>
#include <limits>
#include <map>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <utility>

#include "context/ParlovaFolder.h"
#include "context/Settings.h"
#include "foundation/Date.h"
#include "foundation/Unicode.h"
#include "history/HistorySchema.h"
#include "platform/FileManager.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

void logFailure(const std::string &what, const SqliteError &error) {
  logFormat("The chat history (%@) could not be %@: %@", ChatHistory::file().string(), what, error.message);
}

// A file SQLite cannot read as a database is kept for whoever wants to
// look at it, and the history starts afresh.
bool setAside() {
  const auto damaged = keepAside(ChatHistory::file(), ".damaged");
  std::error_code error;
  for (const char *suffix : {"-journal", "-wal", "-shm"})
    fs::remove(ChatHistory::file().string() + suffix, error);
  if (!damaged || fileExistsAtPath(ChatHistory::file())) {
    logFormat("The chat history %@ is damaged and could not be set aside.", ChatHistory::file().string());
    return false;
  }
  logFormat("The chat history %@ was damaged; it is kept as %@ and a new one begun.", ChatHistory::file().string(),
            damaged->string());
  return true;
}

// A time column in SQL, NULL where it holds no time a chat can have had.
std::string chatTimeOf(const std::string &column) {
  return "CASE WHEN " + column + " >= " + std::to_string(static_cast<int64_t>(Date::kEarliestChatUnixTime)) +
         " AND " + column + " < " + std::to_string(static_cast<int64_t>(Date::kLatestChatUnixTime)) + " THEN " +
         column + " END";
}

} // namespace

fs::path ChatHistory::file() { return parlovaFolder() / "history.sqlite"; }

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
    std::optional<SqliteError> failed;
    bool newer = false;
    if (create) {
      const auto prepared = HistorySchema::prepare(opened);
      if (const auto *error = std::get_if<SqliteError>(&prepared))
        failed = *error;
      else
        newer = std::get<HistorySchema::State>(prepared) == HistorySchema::State::Newer;
    } else {
      failed = opened.execute("SELECT count(*) FROM chats");
    }
    if (!failed) {
      // Readers (a search, any SQLite tool) then never hold a run's writes
      // off, nor its writes them. Kept in the file; where another
      // connection keeps it from changing, the next run tries again.
      if (create && !newer)
        opened.execute("PRAGMA journal_mode = WAL");
      return ChatHistory(std::move(opened), newer);
    }
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

  // Without a thread, on the caller's; false when an earlier record has
  // failed.
  bool write(const ChatRecord &record) {
    if (!failure)
      failure = add(record);
    return !failure;
  }

  // False when an earlier record has failed: the batch is lost anyway.
  bool enqueue(ChatRecord record) {
    if (!writer.joinable())
      return write(record);
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

  std::optional<SqliteError> prepare(bool reindex, bool queued) {
    SqliteDatabase &database = history->database_;
    const auto prepared = [&](std::optional<SqliteStatement> &into, std::string_view sql) -> std::optional<SqliteError> {
      auto made = database.prepare(sql);
      if (auto *error = std::get_if<SqliteError>(&made))
        return *error;
      into.emplace(std::move(std::get<SqliteStatement>(made)));
      return std::nullopt;
    };
    // A batch's pages stay in memory until it commits, instead of spilling
    // into the file early and holding readers off for the rest of it. Chats
    // written as they are given (a single run's, a rebuild's) spill early:
    // the pages of one long chat are as large as its texts.
    if (auto failed = database.execute(queued ? "PRAGMA cache_size = -65536" : "PRAGMA cache_size = -8192"))
      return failed;
    for (const auto &[into, sql] : std::initializer_list<std::pair<std::optional<SqliteStatement> *, const char *>>{
             {&chat, "INSERT OR IGNORE INTO chats (key, transcript, participants, account, display_name, is_group, "
                     "first_time, last_time, month, messages, user_words, other_words, user_curses, other_curses, "
                     "user_netspeak, other_netspeak, links, pictures, first_line, page) VALUES (:key, :transcript, "
                     ":participants, :account, :display_name, :is_group, :first_time, :last_time, :month, :messages, "
                     ":user_words, :other_words, :user_curses, :other_curses, :user_netspeak, :other_netspeak, "
                     ":links, :pictures, :first_line, :page)"},
             {&slot, "INSERT OR IGNORE INTO slots (chat, weekday, hour, messages) "
                     "VALUES (:chat, :weekday, :hour, :messages)"},
             {&message, "INSERT INTO texts (text, chat, time, speaker) VALUES (:text, :chat, :time, :speaker)"},
             {&speaker, "INSERT OR IGNORE INTO speakers (account, name) VALUES (:account, :name)"},
             {&speakerId, "SELECT id FROM speakers WHERE account = :account AND name = :name"},
             {&changes, "SELECT changes() AS changed, last_insert_rowid() AS id"},
             {&firstRow, "UPDATE chats SET first_row = last_insert_rowid() WHERE id = :chat"},
             // A chat kept before the library was asked for gets its page later.
             {&paged, "UPDATE chats SET page = :page WHERE key = :key AND page IS NULL"}})
      if (auto failed = prepared(*into, sql))
        return failed;
    if (auto failed = database.execute("BEGIN IMMEDIATE"))
      return failed;
    open = true;
    return reindex ? prepareReindex() : std::nullopt;
  }

  // Where the messages of each chat waiting in `reindex` are: a chat's
  // rows follow each other, so a range of rows, found in one pass.
  std::optional<SqliteError> prepareReindex() {
    SqliteDatabase &database = history->database_;
    auto waiting = database.prepare("SELECT chat FROM reindex");
    if (auto *error = std::get_if<SqliteError>(&waiting))
      return *error;
    auto &chats = std::get<SqliteStatement>(waiting);
    for (auto step = chats.step(); std::holds_alternative<bool>(step) && std::get<bool>(step); step = chats.step())
      rowsOf.emplace(chats.integer(0), std::pair<int64_t, int64_t>(0, -1));
    if (rowsOf.empty())
      return std::nullopt;
    auto ranges = database.prepare("SELECT chat, min(rowid), max(rowid) FROM texts "
                                   "WHERE chat IN (SELECT chat FROM reindex) GROUP BY chat");
    if (auto *error = std::get_if<SqliteError>(&ranges))
      return *error;
    auto &range = std::get<SqliteStatement>(ranges);
    for (auto step = range.step(); std::holds_alternative<bool>(step) && std::get<bool>(step); step = range.step())
      rowsOf[range.integer(0)] = {range.integer(1), range.integer(2)};
    for (const auto &[into, sql] : std::initializer_list<std::pair<std::optional<SqliteStatement> *, const char *>>{
             {&unindex, "DELETE FROM texts WHERE rowid BETWEEN :first AND :last AND chat = :chat"},
             {&reindexDone, "DELETE FROM reindex WHERE chat = :chat"}}) {
      auto made = database.prepare(sql);
      if (auto *error = std::get_if<SqliteError>(&made))
        return *error;
      into->emplace(std::move(std::get<SqliteStatement>(made)));
    }
    return std::nullopt;
  }

  std::variant<int64_t, SqliteError> speakerOf(const ChatTexts::Speaker &who) {
    const auto known = speakers.find({who.account, who.name});
    if (known != speakers.end())
      return known->second;
    if (auto failed = bind(*speaker, ":account", who.account).bind(speaker->parameter(":name"), who.name).run())
      return *failed;
    bind(*speakerId, ":account", who.account).bind(speakerId->parameter(":name"), who.name);
    const auto step = speakerId->step();
    if (const auto *error = std::get_if<SqliteError>(&step))
      return *error;
    const int64_t id = speakerId->integer(speakerId->column("id"));
    speakerId->reset();
    speakers.emplace(std::pair(who.account, who.name), id);
    return id;
  }

  template <class Value> static SqliteStatement &bind(SqliteStatement &statement, std::string_view name, Value value) {
    return statement.bind(statement.parameter(name), value);
  }

  std::optional<SqliteError> add(const ChatRecord &record) {
    std::string participants;
    for (const std::string &account : record.participants)
      participants += account + "\n";
    SqliteStatement &row = *chat;
    bind(row, ":key", std::string_view(record.key));
    bind(row, ":transcript", std::string_view(record.transcript));
    bind(row, ":participants", std::string_view(participants));
    bind(row, ":account", std::string_view(record.account));
    bind(row, ":display_name", std::string_view(record.displayName));
    bind(row, ":is_group", int64_t{record.group});
    if (record.firstTime)
      bind(row, ":first_time", *record.firstTime);
    if (record.month)
      bind(row, ":month", *record.month);
    if (record.lastTime)
      bind(row, ":last_time", *record.lastTime);
    const std::pair<const char *, int64_t> counts[] = {
        {":messages", record.messages},        {":user_words", record.userWords},
        {":other_words", record.otherWords},   {":user_curses", record.userCurses},
        {":other_curses", record.otherCurses}, {":user_netspeak", record.userNetspeak},
        {":other_netspeak", record.otherNetspeak}, {":links", record.links},
        {":pictures", record.pictures}};
    for (const auto &[name, count] : counts)
      bind(row, name, count);
    bind(row, ":first_line", std::string_view(record.firstLine));
    if (record.page)
      bind(row, ":page", std::string_view(*record.page));
    if (auto failed = row.run())
      return failed;
    const auto step = changes->step();
    const bool isNew = std::holds_alternative<bool>(step) && changes->integer(changes->column("changed")) > 0;
    const int64_t id = changes->integer(changes->column("id"));
    changes->reset();
    if (!isNew) {
      if (auto failed = record.page ? bind(bind(*paged, ":key", std::string_view(record.key)), ":page",
                                           std::string_view(*record.page))
                                          .run()
                                    : std::nullopt)
        return failed;
      return indexAnew(record);
    }
    ++added;
    for (int day = 0; day < 7; ++day)
      for (int hour = 0; hour < 24; ++hour)
        if (const int64_t messages = record.slots[day][hour]; messages > 0) {
          bind(*slot, ":chat", id);
          bind(*slot, ":weekday", int64_t{day});
          bind(*slot, ":hour", int64_t{hour});
          if (auto failed = bind(*slot, ":messages", messages).run())
            return failed;
        }
    return index(id, record);
  }

  // The messages of a chat there already, when they wait to be indexed
  // anew: the old rows out, the record's in.
  std::optional<SqliteError> indexAnew(const ChatRecord &record) {
    if (rowsOf.empty())
      return std::nullopt;
    auto found = history->database_.prepare("SELECT id FROM chats WHERE key = :key");
    if (auto *error = std::get_if<SqliteError>(&found))
      return *error;
    auto &chatId = std::get<SqliteStatement>(found);
    bind(chatId, ":key", std::string_view(record.key));
    const auto step = chatId.step();
    if (auto *error = std::get_if<SqliteError>(&step))
      return *error;
    const auto rows = std::get<bool>(step) ? rowsOf.find(chatId.integer(0)) : rowsOf.end();
    if (rows == rowsOf.end())
      return std::nullopt;
    const int64_t id = rows->first;
    bind(*unindex, ":first", rows->second.first);
    bind(*unindex, ":last", rows->second.second);
    if (auto failed = bind(*unindex, ":chat", id).run())
      return failed;
    if (auto failed = index(id, record))
      return failed;
    if (auto failed = bind(*reindexDone, ":chat", id).run())
      return failed;
    rowsOf.erase(rows);
    ++reindexed;
    return std::nullopt;
  }

  std::optional<SqliteError> index(int64_t id, const ChatRecord &record) {
    // A chat's messages follow each other in the index, so the ones around
    // a hit are its neighbours by row. Times in whole seconds.
    std::vector<int64_t> speakerIds;
    for (const ChatTexts::Speaker &each : record.texts.speakers()) {
      const auto who = speakerOf(each);
      if (const auto *error = std::get_if<SqliteError>(&who))
        return *error;
      speakerIds.push_back(std::get<int64_t>(who));
    }
    std::optional<SqliteError> failed;
    bool first = true;
    record.texts.forEach([&](const ChatTexts::Message &text) {
      if (failed)
        return;
      bind(*message, ":text", text.text);
      bind(*message, ":chat", id);
      if (text.time)
        bind(*message, ":time", static_cast<int64_t>(std::floor(*text.time)));
      if ((failed = bind(*message, ":speaker", speakerIds[text.speaker]).run()))
        return;
      if (std::exchange(first, false))
        failed = bind(*firstRow, ":chat", id).run();
    });
    return failed;
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
      for (auto *statement : {&chat, &slot, &message, &speaker, &speakerId, &changes, &paged, &unindex, &reindexDone})
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
  size_t reindexed = 0;
  std::optional<SqliteStatement> chat, slot, message, speaker, speakerId, changes, paged, unindex, reindexDone, firstRow;
  // The chats waiting in `reindex` and their rows in the index (first,
  // last; none: first past last).
  std::map<int64_t, std::pair<int64_t, int64_t>> rowsOf;
  std::map<std::pair<std::string, std::string>, int64_t> speakers;
};

ChatHistory::Additions::Additions(std::unique_ptr<Writing> writing) : writing_(std::move(writing)) {}
ChatHistory::Additions::Additions(Additions &&) noexcept = default;
ChatHistory::Additions &ChatHistory::Additions::operator=(Additions &&) noexcept = default;
ChatHistory::Additions::~Additions() = default;

std::optional<ChatHistory::Additions> ChatHistory::Additions::begin(bool reindex, bool queued) {
  auto history = open();
  if (!history)
    return std::nullopt;
  if (!history->writable()) {
    // Written into, a newer version's history could be harmed in ways
    // this program cannot know of; its chats are added by a rebuild under
    // the version that wrote it, and archiving goes on without them.
    static bool said = false;
    if (!std::exchange(said, true))
      logFormat("The chat history %@ was written by a newer version of Parlova; this one adds no chats to it. "
                "Those processed now wait: parlova --rebuild-history adds them, run by the newer version.",
                file().string());
    return Additions(nullptr);
  }
  auto writing = std::make_unique<Writing>(std::move(*history));
  if (const auto failed = writing->prepare(reindex, queued)) {
    writing->abandon(*failed);
    return std::nullopt;
  }
  if (queued)
    writing->start();
  return Additions(std::move(writing));
}

bool ChatHistory::Additions::add(ChatRecord record) {
  if (!writing_ || writing_->failed)
    return !writing_;
  return accepted(writing_->enqueue(std::move(record)));
}

bool ChatHistory::Additions::write(const ChatRecord &record) {
  if (!writing_ || writing_->failed)
    return !writing_;
  return accepted(writing_->write(record));
}

// A record refused gives the batch up.
bool ChatHistory::Additions::accepted(bool taken) {
  if (!taken)
    writing_->abandon(*writing_->finish());
  return taken;
}

bool ChatHistory::Additions::setAsideDamaged() const { return writing_ && writing_->setAsideDamaged; }

size_t ChatHistory::Additions::reindexed() const { return writing_ ? writing_->reindexed : 0; }

std::optional<size_t> ChatHistory::Additions::commit() {
  if (!writing_)
    return size_t{0};
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

std::optional<size_t> ChatHistory::store(const std::vector<ChatRecord> &records, size_t *reindexed) {
  if (records.empty())
    return size_t{0};
  // A database found damaged on the way is set aside; the chats then go
  // into a new one. They are all made already, so they are written as
  // they are: a long chat's record holds all its words.
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto additions = Additions::begin(true, false);
    if (!additions)
      return std::nullopt;
    for (const ChatRecord &record : records)
      if (!additions->write(record))
        break;
    if (const auto added = additions->commit()) {
      if (reindexed)
        *reindexed += additions->reindexed();
      return added;
    }
    if (!additions->setAsideDamaged())
      return std::nullopt;
  }
  return std::nullopt;
}

namespace {

// Every row `sql` gives, each made by `read`; nothing when they cannot be
// read (logged).
template <class Read>
auto readRows(SqliteDatabase &database, std::string_view sql, Read read)
    -> std::optional<std::vector<decltype(read(std::declval<SqliteStatement &>()))>> {
  auto prepared = database.prepare(sql);
  if (auto *error = std::get_if<SqliteError>(&prepared)) {
    logFailure("read", *error);
    return std::nullopt;
  }
  auto &statement = std::get<SqliteStatement>(prepared);
  std::vector<decltype(read(statement))> rows;
  while (true) {
    const auto step = statement.step();
    if (auto *error = std::get_if<SqliteError>(&step)) {
      logFailure("read", *error);
      return std::nullopt;
    }
    if (!std::get<bool>(step))
      return rows;
    rows.push_back(read(statement));
  }
}

} // namespace

std::optional<std::vector<LibraryChat>> ChatHistory::library() {
  return readRows(database_,
                  "SELECT account, display_name, first_time, last_time, messages, user_words + other_words AS words, "
                  "first_line, page FROM chats WHERE page IS NOT NULL ORDER BY account, first_time",
                  [](SqliteStatement &statement) {
                    const auto named = [&](std::string_view name) { return statement.column(name); };
                    LibraryChat chat{statement.text(named("account")), statement.text(named("display_name")),
                                     std::nullopt, std::nullopt, statement.integer(named("messages")),
                                     statement.integer(named("words")), statement.text(named("first_line")),
                                     statement.text(named("page"))};
                    if (!statement.isNull(named("first_time")))
                      chat.firstTime = statement.real(named("first_time"));
                    if (!statement.isNull(named("last_time")))
                      chat.lastTime = statement.real(named("last_time"));
                    return chat;
                  });
}

std::optional<std::vector<std::pair<std::string, std::string>>> ChatHistory::pageKeys() {
  return readRows(database_, "SELECT page, key FROM chats WHERE page IS NOT NULL", [](SqliteStatement &statement) {
    return std::pair(statement.text(0), statement.text(1));
  });
}

std::optional<int64_t> ChatHistory::waitingForReindex() {
  // A history not yet brought to this version waits with every chat that
  // sent a file.
  const auto version = HistorySchema::version(database_);
  const bool before = std::holds_alternative<int64_t>(version) && std::get<int64_t>(version) < 2;
  const auto counts = readRows(database_,
                               before ? "SELECT count(*) FROM chats WHERE pictures > 0" : "SELECT count(*) FROM reindex",
                               [](SqliteStatement &statement) { return statement.integer(0); });
  return counts && !counts->empty() ? std::optional(counts->front()) : std::nullopt;
}

std::optional<std::vector<std::string>> ChatHistory::keys() {
  return readRows(database_, "SELECT key FROM chats", [](SqliteStatement &statement) { return statement.text(0); });
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
      // Rows an earlier version kept with times no chat can have had are
      // counted but neither dated nor charted.
      query("SELECT count(*) AS chats, min(" + chatTimeOf("first_time") + ") AS first, max(" +
                chatTimeOf("last_time") + ") AS last FROM chats",
            [&](SqliteStatement &row) {
              summary.chats = row.integer(row.column("chats"));
              if (!row.isNull(row.column("first")))
                summary.firstTime = row.real(row.column("first"));
              if (!row.isNull(row.column("last")))
                summary.lastTime = row.real(row.column("last"));
            }) &&
      query("SELECT month, count(*) AS chats, sum(user_words + other_words) AS words FROM chats "
            "WHERE month BETWEEN 1970 * 12 AND 2200 * 12 - 1 GROUP BY month ORDER BY month",
            [&](SqliteStatement &row) {
              const int64_t month = row.integer(row.column("month"));
              summary.months.push_back({static_cast<int>(month / 12), static_cast<int>(month % 12) + 1,
                                        row.integer(row.column("chats")), row.integer(row.column("words"))});
            }) &&
      // The name shown is the one of the latest chat (SQLite takes the
      // other columns from the row that gave the max()).
      query("SELECT display_name, max(last_time), sum(user_words) AS by_user, sum(other_words) AS by_others "
            "FROM chats GROUP BY account ORDER BY sum(user_words) + sum(other_words) DESC, account LIMIT 15",
            [&](SqliteStatement &row) {
              summary.people.push_back({row.text(row.column("display_name")), row.integer(row.column("by_user")),
                                        row.integer(row.column("by_others"))});
            }) &&
      query("SELECT weekday, hour, sum(messages) AS messages FROM slots GROUP BY weekday, hour",
            [&](SqliteStatement &row) {
              const int64_t day = row.integer(row.column("weekday")), hour = row.integer(row.column("hour"));
              if (day >= 0 && day < 7 && hour >= 0 && hour < 24)
                summary.slots[static_cast<size_t>(day)][static_cast<size_t>(hour)] =
                    row.integer(row.column("messages"));
            });
  if (!read)
    return std::nullopt;
  return summary;
}

} // namespace parlova
