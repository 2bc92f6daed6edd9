#include "web/PeoplePages.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>
#include <set>
#include <variant>
#include <vector>

#include "foundation/HtmlText.h"
#include "history/PeopleAndChats.h"
#include "platform/AddressBook.h"
#include "web/ChatListHtml.h"
#include "web/LocalTimeText.h"
#include "web/PageShell.h"
#include "web/ReadConnections.h"
#include "web/UrlText.h"

namespace parlova {

namespace {

std::string lowered(std::string text) {
  for (char &c : text)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

struct Person {
  std::string name;
  std::set<std::string> accounts; // as the chats spell them
  int64_t chats = 0;
  int64_t words = 0;
  std::optional<double> first;
  std::optional<double> last;
};

// The card that lists `account`, if one does.
const ContactCard *cardOf(const AddressBook &contacts, const std::string &account) {
  const auto cards = contacts.cardsWithAIMHandle(account);
  return cards.empty() ? nullptr : cards.front();
}

std::string cardName(const ContactCard &card) {
  std::string name = card.firstName.value_or("");
  if (card.lastName)
    name += (name.empty() ? "" : " ") + *card.lastName;
  return name;
}

// Everybody, one person for each card that lists several of their
// accounts, by the lowered account met first.
std::optional<std::map<std::string, Person>> gather(SqliteDatabase &history, const AddressBook &contacts) {
  const auto everybody = PeopleAndChats(history).people();
  if (!everybody)
    return std::nullopt;
  std::map<const ContactCard *, std::string> keyOfCard;
  std::map<std::string, Person> people;
  for (const HistoryPerson &one : *everybody) {
    const ContactCard *card = cardOf(contacts, one.account);
    std::string key = lowered(one.account);
    if (card)
      key = keyOfCard.try_emplace(card, key).first->second;
    Person &person = people[key];
    if (person.name.empty())
      person.name = card && !cardName(*card).empty() ? cardName(*card) : one.name;
    person.accounts.insert(one.account);
    person.chats += one.chats;
    person.words += one.words;
    if (one.firstChat && (!person.first || *one.firstChat < *person.first))
      person.first = one.firstChat;
    if (one.lastChat && (!person.last || *one.lastChat > *person.last))
      person.last = one.lastChat;
  }
  return people;
}

WebAnswer unreadable(const std::string &why) {
  return {503, "text/html; charset=utf-8", PageShell::page("People", {}, "<p class=\"problem\">" + escapedForHtml(why) + "</p>")};
}

// Chats in each month from the first year to the last, one bar a month.
std::string monthChart(const std::vector<HistoryChat> &chats) {
  std::map<int, int64_t> months; // year * 12 + month
  for (const HistoryChat &chat : chats)
    if (chat.time) {
      const std::string month = localTimeText(chat.time, "%Y %m");
      months[std::stoi(month.substr(0, 4)) * 12 + std::stoi(month.substr(5)) - 1]++;
    }
  if (months.empty())
    return {};
  const int first = months.begin()->first / 12 * 12, last = months.rbegin()->first / 12 * 12 + 11;
  int64_t most = 1;
  for (const auto &[month, count] : months)
    most = std::max(most, count);
  constexpr int kBar = 6, kHeight = 50;
  const int width = (last - first + 1) * kBar;
  std::string svg = "<svg class=\"months\" role=\"img\" aria-label=\"chats by month\" width=\"" +
                    std::to_string(width) + "\" height=\"" + std::to_string(kHeight + 14) + "\" viewBox=\"0 0 " +
                    std::to_string(width) + " " + std::to_string(kHeight + 14) + "\">";
  for (const auto &[month, count] : months) {
    const auto height = std::max<int64_t>(1, count * kHeight / most);
    svg += "<rect x=\"" + std::to_string((month - first) * kBar) + "\" y=\"" + std::to_string(kHeight - height) +
           "\" width=\"" + std::to_string(kBar - 1) + "\" height=\"" + std::to_string(height) + "\"><title>" +
           std::to_string(month / 12) + "-" + (month % 12 < 9 ? "0" : "") + std::to_string(month % 12 + 1) + ": " +
           std::to_string(count) + "</title></rect>";
  }
  for (int year = first / 12; year <= last / 12; ++year)
    svg += "<text x=\"" + std::to_string((year * 12 - first) * kBar + 2) + "\" y=\"" + std::to_string(kHeight + 12) +
           "\">" + std::to_string(year) + "</text>";
  return svg + "</svg>";
}

} // namespace

WebAnswer PeoplePages::everybody() const {
  auto leased = history_.lease();
  if (auto *why = std::get_if<std::string>(&leased))
    return unreadable(*why);
  const auto people = gather(std::get<ReadConnections::Lease>(leased).database(), contacts_);
  if (!people)
    return unreadable("The chat history cannot be read now; try again in a moment.");
  std::vector<const Person *> order;
  for (const auto &[key, person] : *people)
    order.push_back(&person);
  std::stable_sort(order.begin(), order.end(), [](const Person *a, const Person *b) { return a->chats > b->chats; });
  std::string body = "<h1>People</h1>\n<table class=\"people\"><thead><tr><th>Who</th><th>Chats</th><th>Words</th>"
                     "<th>First chat</th><th>Last chat</th></tr></thead><tbody>\n";
  for (const Person *person : order) {
    std::string accounts;
    for (const std::string &account : person->accounts)
      accounts += (accounts.empty() ? "" : ", ") + escapedForHtml(account);
    body += "<tr><td><a href=\"/person/" + escapedForHtml(percentEncoded(*person->accounts.begin())) + "\">" +
            escapedForHtml(person->name) + "</a> <span class=\"accounts\">" + accounts + "</span></td><td>" +
            std::to_string(person->chats) + "</td><td>" + std::to_string(person->words) + "</td><td>" +
            localTimeText(person->first, "%Y-%m-%d") + "</td><td>" + localTimeText(person->last, "%Y-%m-%d") +
            "</td></tr>\n";
  }
  body += "</tbody></table>";
  return {200, "text/html; charset=utf-8", PageShell::page("People", {}, body)};
}

WebAnswer PeoplePages::person(const WebRequest &request) const {
  const std::string asked = request.pathParts.empty() ? "" : request.pathParts[0];
  auto leased = history_.lease();
  if (auto *why = std::get_if<std::string>(&leased))
    return unreadable(*why);
  SqliteDatabase &history = std::get<ReadConnections::Lease>(leased).database();
  const auto people = gather(history, contacts_);
  if (!people)
    return unreadable("The chat history cannot be read now; try again in a moment.");
  const Person *found = nullptr;
  for (const auto &[key, person] : *people)
    for (const std::string &account : person.accounts)
      if (lowered(account) == lowered(asked))
        found = &person;
  if (!found)
    return {404, "text/html; charset=utf-8",
            PageShell::page("Not found", {}, "<p class=\"problem\">Nobody in the history has that account.</p>")};
  const std::vector<std::string> accounts(found->accounts.begin(), found->accounts.end());
  const auto chats = PeopleAndChats(history).chats(accounts, std::nullopt, std::nullopt, 0);
  if (!chats)
    return unreadable("The chat history cannot be read now; try again in a moment.");
  std::map<std::string, std::vector<HistoryChat>> byYear;
  for (const HistoryChat &chat : *chats)
    byYear[localTimeText(chat.time, "%Y")].push_back(chat);
  std::string year = request.parameter("year").value_or("");
  if (!byYear.count(year))
    year = byYear.empty() ? "" : byYear.rbegin()->first;
  std::string accountList;
  for (const std::string &account : accounts)
    accountList += (accountList.empty() ? "" : ", ") + escapedForHtml(account);
  std::string body = "<h1>" + escapedForHtml(found->name) + "</h1>\n<p class=\"facts\">" + accountList + ": " +
                     std::to_string(chats->size()) + (chats->size() == 1 ? " chat" : " chats") + ", " +
                     std::to_string(found->words) + " words, " + localTimeText(found->first, "%Y-%m-%d") +
                     " to " + localTimeText(found->last, "%Y-%m-%d") + "</p>\n" + monthChart(*chats) +
                     "\n<nav class=\"years\">";
  for (const auto &[each, list] : byYear)
    body += each == year ? "<strong>" + escapedForHtml(each) + " (" + std::to_string(list.size()) + ")</strong> "
                         : "<a href=\"/person/" + escapedForHtml(percentEncoded(asked)) + "?year=" +
                               escapedForHtml(percentEncoded(each)) + "\">" + escapedForHtml(each) + " (" +
                               std::to_string(list.size()) + ")</a> ";
  body += "</nav>\n<h2>" + escapedForHtml(year) + "</h2>\n" +
          chatListHtml(year.empty() ? std::vector<HistoryChat>{} : byYear[year]);
  return {200, "text/html; charset=utf-8", PageShell::page(found->name, {}, body)};
}

} // namespace parlova
