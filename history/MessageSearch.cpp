#include "history/MessageSearch.h"

#include <algorithm>
#include <cctype>

#include "history/PeopleAndChats.h"

namespace parlova {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// What FTS5 takes as a bare word: ASCII letters and digits, "_", and every
// byte of a character beyond ASCII.
bool isBareWord(std::string_view word) {
  if (word.empty())
    return false;
  for (const char c : word) {
    const auto byte = static_cast<unsigned char>(c);
    if (!(std::isalnum(byte) || c == '_' || byte >= 0x80))
      return false;
  }
  return true;
}

std::string quoted(std::string_view word) {
  std::string text = "\"";
  for (const char c : word) {
    text += c;
    if (c == '"')
      text += '"';
  }
  return text + "\"";
}

// FTS5's complaint in the user's words.
SearchFailure badQuery(const SqliteError &error) {
  if (error.stopped)
    return {SearchFailure::Kind::TooLong, "the query reads too much of the index; add a word, a person or dates"};
  if (error.busy)
    return {SearchFailure::Kind::Busy, "the chat history is being written"};
  const std::string &sqlite = error.message;
  if (sqlite.find("unterminated string") != std::string::npos)
    return {SearchFailure::Kind::BadQuery, "a quote in the query is not closed"};
  const size_t near = sqlite.find("syntax error near ");
  if (near != std::string::npos) {
    const std::string at = sqlite.substr(near + 18);
    return {SearchFailure::Kind::BadQuery,
            (at == "\"\"" ? std::string("the query ends too soon") : "the query does not read at " + at) +
                " (AND, OR and NOT need words on both sides, and every parenthesis its partner)"};
  }
  return {SearchFailure::Kind::BadQuery, "the query cannot be read"};
}

// A history kept before messages were indexed has no table of them; one
// whose tables cannot be read at all is another matter.
SearchFailure unprepared(const SqliteError &error) {
  if (error.stopped)
    return badQuery(error);
  if (error.busy)
    return {SearchFailure::Kind::Busy, "the chat history is being written"};
  if (error.message.find("no such table") != std::string::npos)
    return {SearchFailure::Kind::NoIndex, "the chat history has no index of the messages"};
  return {SearchFailure::Kind::Unreadable, "the chat history cannot be read"};
}

SearchHit::Message messageOf(const SqliteStatement &row) {
  SearchHit::Message message;
  if (const int time = row.column("time"); !row.isNull(time))
    message.time = row.real(time);
  message.account = row.text(row.column("account"));
  message.speaker = row.text(row.column("speaker"));
  message.text = row.text(row.column("text"));
  return message;
}

// The conditions on a matching message besides the words, and their
// parameters (?2 to ?4, ?8 and ?9) bound.
constexpr const char *kConditions = " AND (?3 IS NULL OR texts.time >= ?3) AND (?4 IS NULL OR texts.time < ?4) "
                                    "AND (coalesce(?8, 0) = 0 OR c.links > 0) AND (coalesce(?9, 0) = 0 OR c.pictures > 0) ";

void bindConditions(SqliteStatement &statement, const std::string &query, const SearchOptions &options) {
  statement.bind(1, query);
  if (!options.with.empty())
    statement.bind(2, PeopleAndChats::accountList(options.with));
  if (options.since)
    statement.bind(3, *options.since);
  if (options.until)
    statement.bind(4, *options.until);
  statement.bind(8, int64_t{options.withLinks}).bind(9, int64_t{options.withPictures});
}

} // namespace

std::string ftsQuery(std::string_view typed) {
  std::string query;
  int nearDepth = 0, depth = 0;
  bool afterNear = false;
  size_t i = 0;
  while (i < typed.size()) {
    const char c = typed[i];
    if (isBlank(c)) {
      ++i;
      continue;
    }
    if (!query.empty() && c != ')' && c != ',' && query.back() != '(')
      query += ' ';
    if (c == '"') {
      size_t end = i + 1;
      while (end < typed.size() && !(typed[end] == '"' && (end + 1 >= typed.size() || typed[end + 1] != '"')))
        end += typed[end] == '"' ? 2 : 1;
      query += typed.substr(i, std::min(end + 1, typed.size()) - i);
      i = end + 1;
      if (i < typed.size() && typed[i] == '*')
        query += typed[i++];
      afterNear = false;
      continue;
    }
    if (c == '(' || c == ')') {
      if (c == '(') {
        ++depth;
        if (afterNear)
          nearDepth = depth;
      } else if (depth-- == nearDepth) {
        nearDepth = 0;
      }
      query += c;
      ++i;
      afterNear = false;
      continue;
    }
    // Inside NEAR(...), a comma before the distance is its syntax.
    if (c == ',' && nearDepth != 0) {
      query += c;
      ++i;
      continue;
    }
    size_t end = i;
    while (end < typed.size() && !isBlank(typed[end]) && typed[end] != '"' && typed[end] != '(' &&
           typed[end] != ')' && !(typed[end] == ',' && nearDepth != 0))
      ++end;
    const std::string_view word = typed.substr(i, end - i);
    i = end;
    afterNear = word == "NEAR";
    if (word == "AND" || word == "OR" || word == "NOT" || word == "NEAR") {
      query += word;
      continue;
    }
    const bool prefix = word.size() > 1 && word.back() == '*';
    const std::string_view stem = prefix ? word.substr(0, word.size() - 1) : word;
    if (isBareWord(stem) || (nearDepth != 0 && std::all_of(stem.begin(), stem.end(), [](char d) {
                               return std::isdigit(static_cast<unsigned char>(d));
                             })))
      query += word;
    else
      query += quoted(stem) + (prefix ? "*" : "");
  }
  return query;
}

std::string hitsStatement(HitOrder order) {
  return std::string("SELECT texts.rowid AS row, texts.chat AS chat, texts.time AS time, s.account AS account, "
                     "s.name AS speaker, texts.text AS text, highlight(texts, 0, ?6, ?7) AS marked, "
                     "snippet(texts, 0, '', '', '\xE2\x80\xA6', 16) AS snippet, c.transcript AS transcript, "
                     "c.participants AS participants, c.display_name AS chat_name, c.first_time AS chat_time, "
                     "c.page AS page "
                     "FROM texts JOIN chats c ON c.id = texts.chat JOIN speakers s ON s.id = texts.speaker "
                     "WHERE texts MATCH ?1 AND ") +
         PeopleAndChats::kWithCondition + kConditions +
         (order == HitOrder::Oldest      ? "ORDER BY texts.time, texts.rowid "
          : order == HitOrder::Best      ? "ORDER BY rank "
          : order == HitOrder::BestOfFew ? "ORDER BY bm25(texts), texts.rowid "
                                         : "ORDER BY texts.rowid DESC ") +
         "LIMIT ?5 OFFSET coalesce(?10, 0)";
}

std::variant<std::vector<SearchHit>, SearchFailure> searchMessages(SqliteDatabase &history,
                                                                   const SearchOptions &options) {
  const std::string query = ftsQuery(options.query);
  if (query.empty())
    return SearchFailure{SearchFailure::Kind::BadQuery, "there are no words to search for"};
  // Ranking reads every hit; for a word in many thousands of messages the
  // ranks barely differ and the reader waits for nothing: the most recently
  // kept come first then. A count is cheap.
  bool best = !options.byDate;
  int64_t matching = -1;
  if (best && options.limit != 0) {
    auto counted = history.prepare(kCountStatement);
    auto *count = std::get_if<SqliteStatement>(&counted);
    if (!count)
      return unprepared(std::get<SqliteError>(counted));
    count->bind(1, query);
    const auto step = count->step();
    if (const auto *error = std::get_if<SqliteError>(&step))
      return badQuery(*error);
    matching = count->integer(0);
    best = matching <= kMostRanked;
  }
  // FTS5 ranks apart from the query, in a statement it prepares for each
  // search, and then reads the hits in that order; when every hit is on
  // this page, SQLite's own sort of them costs less. Ties go by row in
  // both, so pages of either kind follow on from each other.
  const bool allWanted = matching >= 0 && static_cast<uint64_t>(matching) <= options.skip + options.limit;
  const std::string sql = hitsStatement(options.byDate ? HitOrder::Oldest
                                        : !best        ? HitOrder::Newest
                                        : allWanted    ? HitOrder::BestOfFew
                                                       : HitOrder::Best);
  auto prepared = history.prepare(sql);
  if (const auto *error = std::get_if<SqliteError>(&prepared))
    return unprepared(*error);
  auto &statement = std::get<SqliteStatement>(prepared);
  bindConditions(statement, query, options);
  statement.bind(5, options.limit == 0 ? int64_t{-1} : static_cast<int64_t>(options.limit));
  statement.bind(6, options.markOpen).bind(7, options.markClose);
  statement.bind(10, static_cast<int64_t>(options.skip));

  std::vector<SearchHit> hits;
  while (true) {
    const auto step = statement.step();
    if (const auto *error = std::get_if<SqliteError>(&step))
      return badQuery(*error);
    if (!std::get<bool>(step))
      break;
    const auto named = [&](std::string_view name) { return statement.column(name); };
    SearchHit hit;
    hit.row = statement.integer(named("row"));
    hit.chat = statement.integer(named("chat"));
    hit.message = messageOf(statement);
    hit.marked = statement.text(named("marked"));
    hit.snippet = statement.text(named("snippet"));
    hit.transcript = statement.text(named("transcript"));
    hit.with = PeopleAndChats::accountsIn(statement.text(named("participants")));
    hit.chatName = statement.text(named("chat_name"));
    if (!statement.isNull(named("chat_time")))
      hit.chatTime = statement.real(named("chat_time"));
    hit.page = statement.text(named("page"));
    hits.push_back(std::move(hit));
  }

  if (options.context > 0) {
    auto around = history.prepare(
        "SELECT texts.rowid AS row, texts.time AS time, s.account AS account, s.name AS speaker, texts.text AS text "
        "FROM texts "
        "JOIN speakers s ON s.id = texts.speaker WHERE texts.rowid BETWEEN ?1 AND ?2 AND texts.chat = ?3 "
        "ORDER BY texts.rowid");
    if (auto *neighbours = std::get_if<SqliteStatement>(&around))
      for (SearchHit &hit : hits) {
        const auto reach = static_cast<int64_t>(options.context);
        neighbours->bind(1, hit.row - reach).bind(2, hit.row + reach).bind(3, hit.chat);
        while (true) {
          const auto step = neighbours->step();
          if (!std::holds_alternative<bool>(step) || !std::get<bool>(step))
            break;
          const int64_t row = neighbours->integer(neighbours->column("row"));
          if (row != hit.row)
            (row < hit.row ? hit.before : hit.after).push_back(messageOf(*neighbours));
        }
        neighbours->reset();
      }
  }
  return hits;
}

std::variant<HitCount, SearchFailure> countHits(SqliteDatabase &history, const SearchOptions &options,
                                                int64_t most) {
  const std::string query = ftsQuery(options.query);
  if (query.empty())
    return SearchFailure{SearchFailure::Kind::BadQuery, "there are no words to search for"};
  // The chats are joined only when a condition is about them: a common
  // word's ten thousand rows cost twice as much with the join.
  const bool aboutChats = !options.with.empty() || options.withLinks || options.withPictures;
  auto prepared = history.prepare(
      std::string("SELECT coalesce(CAST(strftime('%Y', sent, 'unixepoch', 'localtime') AS INTEGER), 0) AS year, "
                  "count(*) AS hits FROM (SELECT texts.time AS sent FROM texts ") +
      (aboutChats ? std::string("JOIN chats c ON c.id = texts.chat WHERE texts MATCH ?1 AND ") +
                        PeopleAndChats::kWithCondition + kConditions
                  : std::string("WHERE texts MATCH ?1 AND (?3 IS NULL OR texts.time >= ?3) AND "
                                "(?4 IS NULL OR texts.time < ?4) ")) +
      "LIMIT ?5) GROUP BY year ORDER BY year");
  if (const auto *error = std::get_if<SqliteError>(&prepared))
    return unprepared(*error);
  auto &statement = std::get<SqliteStatement>(prepared);
  bindConditions(statement, query, options);
  statement.bind(5, most + 1);
  HitCount count;
  while (true) {
    const auto step = statement.step();
    if (const auto *error = std::get_if<SqliteError>(&step))
      return badQuery(*error);
    if (!std::get<bool>(step))
      break;
    const int64_t hits = statement.integer(1);
    count.years.emplace_back(static_cast<int>(statement.integer(0)), hits);
    count.total += hits;
  }
  if (count.total > most) {
    count.more = true;
    count.total = most;
  }
  return count;
}

} // namespace parlova
