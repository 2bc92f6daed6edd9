// The history of every processed chat, one row each, in an SQLite database
// beside the archives (history.sqlite). The totals file knows how much was
// said in all; the history knows when, and with whom, which is what the
// charts of the statistics page are drawn from.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <utility>
#include <vector>

#include "history/ChatRecord.h"
#include "platform/SqliteDatabase.h"

namespace parlova {

// What the charts show, each from one grouped query.
struct HistorySummary {
  struct Month {
    int year = 0;
    int month = 0; // 1 to 12
    int64_t chats = 0;
    int64_t words = 0;
  };
  struct Person {
    std::string name;
    int64_t userWords = 0;
    int64_t otherWords = 0;
  };
  int64_t chats = 0;
  std::optional<double> firstTime;
  std::optional<double> lastTime;
  std::vector<Month> months; // those with chats, oldest first
  std::vector<Person> people; // most words first, at most 15
  std::array<std::array<int64_t, 24>, 7> slots{};
};

// A chat of the library, as its lists show it.
struct LibraryChat {
  std::string account;
  std::string displayName;
  std::optional<double> firstTime;
  std::optional<double> lastTime;
  int64_t messages = 0;
  int64_t words = 0;
  std::string firstLine;
  std::string page;
};

class ChatHistory {
public:
  // ~/Library/Parlova/history.sqlite.
  static std::filesystem::path file();
  // Whether the user asked for the history to be kept (keepHistory, or
  // keepChatPages, whose lists are drawn from it).
  static bool wanted();

  // The history, made when missing and brought to this program's version
  // when older. A file that is not a sound database is set aside as
  // history.sqlite.damaged (logged) and a new one begun; nothing when even
  // that fails (logged).
  static std::optional<ChatHistory> open();
  // False for a history written by a newer version: it is read, never
  // written (additions to it keep nothing and fail nothing).
  bool writable() const { return !newer_; }
  // The history as it is, for reading: nothing when there is none.
  static std::optional<ChatHistory> openExisting();

  // Adds the chats not there yet, all or none, and answers how many were
  // new; nothing when they could not be written (logged). The history is
  // opened for it (made, or set aside when damaged, as open() does; a
  // database found damaged while writing is set aside too, and the chats
  // go into a new one). A chat there already whose messages wait to be
  // indexed anew (see HistorySchema) has them replaced by the record's,
  // counted in `reindexed`.
  static std::optional<size_t> store(const std::vector<ChatRecord> &records, size_t *reindexed = nullptr);
  // How many chats wait to have their messages indexed anew; nothing when
  // it cannot be read (logged).
  std::optional<int64_t> waitingForReindex();

  // Chats added one at a time and kept all or none, for a batch too large
  // to hold as records: their rows wait in one transaction until commit().
  // Dropped uncommitted, it keeps none of them. The rows are written by a
  // thread of its own while the caller goes on, so a failure may only be
  // told by a later add() or by commit().
  class Additions {
  public:
    // Nothing when the history cannot be opened (logged). For a history
    // of a newer version (logged once) the chats are kept nowhere and
    // nothing fails.
    // With `queued`, the chats are written on a thread of their own while
    // the caller makes the next; without, each is written as it is added,
    // on the caller's thread, and is never copied.
    static std::optional<Additions> begin(bool reindex = false, bool queued = true);
    Additions(Additions &&) noexcept;
    Additions &operator=(Additions &&) noexcept;
    ~Additions();
    // False when a chat of the batch could not be written (logged):
    // nothing of the batch is kept then, and commit() fails. A damaged
    // database is set aside, so that the batch done again goes into a new
    // one.
    bool add(ChatRecord record);
    // The same, written at once, for additions begun without a queue.
    bool write(const ChatRecord &record);
    // How many chats were new; nothing when they could not be kept
    // (logged).
    std::optional<size_t> commit();
    // Whether it failed on a damaged database, now set aside.
    bool setAsideDamaged() const;
    // Chats there already whose messages were indexed anew.
    size_t reindexed() const;

  private:
    struct Writing;
    explicit Additions(std::unique_ptr<Writing> writing);
    bool accepted(bool taken);
    std::unique_ptr<Writing> writing_;
  };
  // Nothing when it cannot be read (logged).
  std::optional<HistorySummary> summary();
  // The chats that have a page in the library, by person and time.
  std::optional<std::vector<LibraryChat>> library();
  // Each library page with the key of its chat; nothing when it cannot be
  // read (logged).
  std::optional<std::vector<std::pair<std::string, std::string>>> pageKeys();
  // The key of every chat it holds; nothing when it cannot be read (logged).
  std::optional<std::vector<std::string>> keys();

private:
  ChatHistory(SqliteDatabase database, bool newer) : database_(std::move(database)), newer_(newer) {}
  static std::optional<ChatHistory> opened(bool create);
  SqliteDatabase database_;
  bool newer_ = false;
};

} // namespace parlova
