// The people of the history and their chats, for finding a chat without a
// word from it: who was talked with, how often and when last, and the chats
// of some of them, or of a span of days.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/SqliteDatabase.h"

namespace parlova {

struct HistoryPerson {
  std::string account;
  std::string name; // the name their chats show; the account when none
  int64_t chats = 0; // group chats counted for each participant
  int64_t words = 0; // in those chats, by everybody
  std::optional<double> firstChat; // seconds since 1970
  std::optional<double> lastChat;
};

struct HistoryChat {
  std::string transcript;
  std::string page; // in the chat library; empty: none
  std::string account;
  std::string name;
  std::vector<std::string> with; // the other participants' accounts
  std::optional<double> time;
  int64_t messages = 0;
  int64_t id = 0; // its row in the history
  std::string firstLine;
  int64_t words = 0;
};

class PeopleAndChats {
public:
  explicit PeopleAndChats(SqliteDatabase &history) : history_(history) {}

  // Everybody, by account; nothing when the history cannot be read.
  std::optional<std::vector<HistoryPerson>> people();

  // The accounts the names typed for --with stand for: a name that is an
  // account or a person's name as it is, else the one person whose account
  // or name begins with it. Or why one of them names nobody, or more than
  // one person (naming them).
  static std::variant<std::vector<std::string>, std::string> resolve(const std::vector<HistoryPerson> &people,
                                                                     const std::vector<std::string> &typed);

  // The chats with any of `with` (all when empty) begun in [since, until),
  // oldest first, at most `limit` (0: all) after the first `skip`;
  // nothing when unreadable.
  std::optional<std::vector<HistoryChat>> chats(const std::vector<std::string> &with, std::optional<double> since,
                                                std::optional<double> until, size_t limit, size_t skip = 0);

  // The accounts of a chat's participants column (one a line).
  static std::vector<std::string> accountsIn(const std::string &participants);
  // `accounts` as the statements take a list of people: a JSON array.
  static std::string accountList(const std::vector<std::string> &accounts);
  // The condition on a chat `c` that it is with one of the people listed in
  // parameter ?2 (or anybody when it is null).
  static constexpr const char *kWithCondition =
      "(?2 IS NULL OR EXISTS (SELECT 1 FROM json_each(?2) p WHERE lower(c.account) = lower(p.value) "
      "OR lower(c.display_name) = lower(p.value) "
      "OR instr(char(10) || lower(c.participants), char(10) || lower(p.value) || char(10)) > 0))";

private:
  SqliteDatabase &history_;
};

} // namespace parlova
