// Searching the messages of every chat in the history's full-text index:
// the query as a person types it, made fit for SQLite's FTS5, and the hits
// with what a reader wants around them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/SqliteDatabase.h"

namespace parlova {

// Words, "phrases", prefix*, AND, OR, NOT, NEAR(...) and parentheses are
// kept as FTS5 reads them; any other word (one holding a colon, a dot, an
// apostrophe...) is quoted, so that an address or "it's" is searched for
// as typed instead of read as syntax. An unclosed quote stays unclosed:
// FTS5 says so and the user is told.
std::string ftsQuery(std::string_view typed);

struct SearchOptions {
  std::string query; // as typed
  std::vector<std::string> with; // accounts or names; empty: anybody
  std::optional<double> since; // seconds since 1970, from this instant
  std::optional<double> until; // before this instant
  bool withLinks = false;      // only chats in which a link was posted
  bool withPictures = false;   // only chats in which a file was sent
  size_t limit = 50;           // 0: all
  size_t skip = 0;             // the first hits, shown already
  bool byDate = false;         // oldest first, else best first
  size_t context = 0;          // messages before and after each hit
  // Put around the matched words in `marked`.
  std::string markOpen;
  std::string markClose;
};

struct SearchHit {
  // A message as a search gives it back.
  struct Message {
    std::optional<double> time;
    std::string account;
    std::string speaker;
    std::string text;
  };
  int64_t row = 0;
  int64_t chat = 0; // the chat's row in the history
  std::string transcript;
  std::string page; // in the chat library, relative to its folder; empty: none
  std::vector<std::string> with; // the other participants' accounts
  std::string chatName;
  std::optional<double> chatTime;
  Message message;
  std::string marked;
  std::string snippet;
  std::vector<Message> before;
  std::vector<Message> after;
};

// Above this many matching messages, hits come newest first, unranked.
inline constexpr int64_t kMostRanked = 10000;

// The statements a search runs: how many messages match ?1, then the hits
// (?1 the query, ?2 the person or null, ?3 and ?4 the instants or null, ?5
// the most hits, ?6 and ?7 the marks around matched words, ?8 and ?9 1 for
// chats with links or pictures only, ?10 the hits to skip).
inline constexpr const char *kCountStatement = "SELECT count(*) FROM texts WHERE texts MATCH ?1";
// BestOfFew is Best, hit for hit, for a search whose every hit is wanted.
enum class HitOrder { Best, BestOfFew, Newest, Oldest };
std::string hitsStatement(HitOrder order);

struct SearchFailure {
  enum class Kind { BadQuery, NoIndex, Unreadable, Busy, TooLong } kind;
  std::string reason; // in the user's words, never SQLite's
};

std::variant<std::vector<SearchHit>, SearchFailure> searchMessages(SqliteDatabase &history,
                                                                   const SearchOptions &options);

// How many messages the search finds (counted up to `most`), by the year
// they were sent in, local time; its limit and order play no part.
struct HitCount {
  int64_t total = 0;
  bool more = false; // there are more than `total`
  std::vector<std::pair<int, int64_t>> years; // oldest first; 0: no date
};
std::variant<HitCount, SearchFailure> countHits(SqliteDatabase &history, const SearchOptions &options,
                                                int64_t most);

} // namespace parlova
