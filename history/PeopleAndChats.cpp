#include "history/PeopleAndChats.h"

#include <algorithm>
#include <cctype>
#include <map>

#include "foundation/JsonText.h"

namespace parlova {

namespace {

std::string lowered(std::string text) {
  for (char &c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

} // namespace

std::optional<std::vector<HistoryPerson>> PeopleAndChats::people() {
  auto prepared = history_.prepare("SELECT account, display_name, is_group, participants, "
                                   "coalesce(last_time, first_time), first_time, user_words + other_words FROM chats");
  auto *statement = std::get_if<SqliteStatement>(&prepared);
  if (!statement)
    return std::nullopt;
  std::map<std::string, HistoryPerson> byAccount;
  const auto count = [&](const std::string &account, const std::string &name, std::optional<double> first,
                         std::optional<double> last, int64_t words) {
    HistoryPerson &person = byAccount[lowered(account)];
    if (person.account.empty()) {
      person.account = account;
      person.name = name.empty() ? account : name;
    }
    ++person.chats;
    person.words += words;
    if (first && (!person.firstChat || *first < *person.firstChat))
      person.firstChat = first;
    if (last && (!person.lastChat || *last > *person.lastChat))
      person.lastChat = last;
  };
  while (true) {
    const auto step = statement->step();
    if (std::holds_alternative<SqliteError>(step))
      return std::nullopt;
    if (!std::get<bool>(step))
      break;
    const auto time = [&](int column) {
      return statement->isNull(column) ? std::nullopt : std::optional(statement->real(column));
    };
    if (statement->integer(2) == 0)
      count(statement->text(0), statement->text(1), time(5), time(4), statement->integer(6));
    else
      for (const std::string &account : accountsIn(statement->text(3)))
        count(account, account, time(5), time(4), statement->integer(6));
  }
  std::vector<HistoryPerson> people;
  for (auto &[key, person] : byAccount)
    people.push_back(std::move(person));
  return people;
}

std::variant<std::vector<std::string>, std::string> PeopleAndChats::resolve(const std::vector<HistoryPerson> &people,
                                                                           const std::vector<std::string> &typed) {
  std::vector<std::string> accounts;
  for (const std::string &name : typed) {
    const std::string wanted = lowered(name);
    const auto exact = std::find_if(people.begin(), people.end(), [&](const HistoryPerson &person) {
      return lowered(person.account) == wanted || lowered(person.name) == wanted;
    });
    if (exact != people.end()) {
      accounts.push_back(name);
      continue;
    }
    std::vector<const HistoryPerson *> begun;
    for (const HistoryPerson &person : people)
      if (lowered(person.account).starts_with(wanted) || lowered(person.name).starts_with(wanted))
        begun.push_back(&person);
    if (begun.size() == 1) {
      accounts.push_back(begun.front()->account);
      continue;
    }
    if (begun.empty())
      return "nobody in the history is called " + name + " (parlova-search --people lists everybody)";
    std::string several;
    for (size_t i = 0; i < begun.size() && i < 10; ++i)
      several += (i == 0 ? "" : ", ") + begun[i]->account +
                 (begun[i]->name != begun[i]->account ? " (" + begun[i]->name + ")" : "");
    return "--with " + name + " could be any of " + std::to_string(begun.size()) + " people: " + several +
           (begun.size() > 10 ? ", ..." : "") + "; give more of the name";
  }
  return accounts;
}

std::vector<std::string> PeopleAndChats::accountsIn(const std::string &participants) {
  std::vector<std::string> found;
  for (size_t start = 0; start < participants.size();) {
    const size_t end = std::min(participants.find('\n', start), participants.size());
    if (end > start)
      found.push_back(participants.substr(start, end - start));
    start = end + 1;
  }
  return found;
}

std::string PeopleAndChats::accountList(const std::vector<std::string> &accounts) {
  std::string json = "[";
  for (const std::string &account : accounts) {
    if (json.size() > 1)
      json += ',';
    json += jsonString(account);
  }
  return json + "]";
}

std::optional<std::vector<HistoryChat>> PeopleAndChats::chats(const std::vector<std::string> &with,
                                                              std::optional<double> since,
                                                              std::optional<double> until, size_t limit,
                                                              size_t skip) {
  auto prepared = history_.prepare(std::string("SELECT transcript, coalesce(page, ''), account, display_name, "
                                               "participants, first_time, messages, id, first_line, "
                                               "user_words + other_words FROM chats c WHERE ") +
                                   kWithCondition +
                                   " AND (?3 IS NULL OR first_time >= ?3) AND (?4 IS NULL OR first_time < ?4) "
                                   "ORDER BY first_time, id LIMIT ?5 OFFSET ?6");
  auto *statement = std::get_if<SqliteStatement>(&prepared);
  if (!statement)
    return std::nullopt;
  if (!with.empty())
    statement->bind(2, accountList(with));
  if (since)
    statement->bind(3, *since);
  if (until)
    statement->bind(4, *until);
  statement->bind(5, limit == 0 ? int64_t{-1} : static_cast<int64_t>(limit));
  statement->bind(6, static_cast<int64_t>(skip));
  std::vector<HistoryChat> chats;
  while (true) {
    const auto step = statement->step();
    if (std::holds_alternative<SqliteError>(step))
      return std::nullopt;
    if (!std::get<bool>(step))
      return chats;
    HistoryChat chat{statement->text(0), statement->text(1), statement->text(2), statement->text(3),
                     accountsIn(statement->text(4)), std::nullopt, statement->integer(6), statement->integer(7),
                     statement->text(8), statement->integer(9)};
    if (!statement->isNull(5))
      chat.time = statement->real(5);
    chats.push_back(std::move(chat));
  }
}

} // namespace parlova
