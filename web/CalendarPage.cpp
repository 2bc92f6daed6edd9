#include "web/CalendarPage.h"

#include <map>
#include <variant>

#include "foundation/HtmlText.h"
#include "foundation/LocalDay.h"
#include "history/PeopleAndChats.h"
#include "web/ChatListHtml.h"
#include "web/PageShell.h"
#include "web/ReadConnections.h"

namespace parlova {

namespace {

constexpr const char *kMonthNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::string monthText(int64_t month) {
  const int64_t number = month % 12 + 1;
  return std::to_string(month / 12) + "-" + (number < 10 ? "0" : "") + std::to_string(number);
}

WebAnswer problem(int status, const std::string &why) {
  return {status, "text/html; charset=utf-8",
          PageShell::page("Calendar", {}, "<p class=\"problem\">" + escapedForHtml(why) + "</p>")};
}

} // namespace

WebAnswer CalendarPage::calendar() const {
  auto leased = history_.lease();
  if (auto *why = std::get_if<std::string>(&leased))
    return problem(503, *why);
  SqliteDatabase &history = std::get<ReadConnections::Lease>(leased).database();
  // The month (year * 12 + month from 0) is kept with each chat and indexed.
  auto prepared = history.prepare("SELECT month, count(*) FROM chats WHERE month IS NOT NULL GROUP BY month");
  auto *statement = std::get_if<SqliteStatement>(&prepared);
  if (!statement)
    return problem(503, "The chat history cannot be read now; try again in a moment.");
  std::map<int64_t, int64_t> months;
  while (true) {
    const auto step = statement->step();
    if (std::holds_alternative<SqliteError>(step))
      return problem(503, "The chat history cannot be read now; try again in a moment.");
    if (!std::get<bool>(step))
      break;
    if (statement->integer(0) > 0)
      months[statement->integer(0)] = statement->integer(1);
  }
  std::string body = "<h1>Calendar</h1>\n";
  if (months.empty())
    return {200, "text/html; charset=utf-8", PageShell::page("Calendar", {}, body + "<p class=\"none\">No chats.</p>")};
  int64_t most = 1;
  for (const auto &[month, count] : months)
    most = std::max(most, count);
  body += "<table class=\"calendar\"><thead><tr><th></th>";
  for (const char *name : kMonthNames)
    body += std::string("<th>") + name + "</th>";
  body += "<th>Year</th></tr></thead><tbody>\n";
  for (int64_t year = months.begin()->first / 12; year <= months.rbegin()->first / 12; ++year) {
    body += "<tr><th>" + std::to_string(year) + "</th>";
    int64_t inYear = 0;
    for (int64_t month = year * 12; month < year * 12 + 12; ++month) {
      const auto found = months.find(month);
      if (found == months.end()) {
        body += "<td></td>";
        continue;
      }
      inYear += found->second;
      // Five shades, from a few chats to the busiest month.
      const int64_t shade = 1 + found->second * 4 / most;
      body += "<td class=\"n" + std::to_string(shade) + "\"><a href=\"/month/" + monthText(month) + "\">" +
              std::to_string(found->second) + "</a></td>";
    }
    body += "<td>" + std::to_string(inYear) + "</td></tr>\n";
  }
  body += "</tbody></table>";
  return {200, "text/html; charset=utf-8", PageShell::page("Calendar", {}, body)};
}

WebAnswer CalendarPage::month(const WebRequest &request) const {
  const std::string asked = request.pathParts.empty() ? "" : request.pathParts[0];
  const auto first = asked.size() == 7 ? LocalDay::parse(asked + "-01") : std::nullopt;
  if (!first)
    return problem(404, "There is no such month.");
  const int year = std::stoi(asked.substr(0, 4)), number = std::stoi(asked.substr(5, 2));
  const std::string nextText = number == 12 ? std::to_string(year + 1) + "-01" : monthText(int64_t{year} * 12 + number);
  const auto next = LocalDay::parse(nextText + "-01");
  auto leased = history_.lease();
  if (auto *why = std::get_if<std::string>(&leased))
    return problem(503, *why);
  const auto chats = PeopleAndChats(std::get<ReadConnections::Lease>(leased).database())
                         .chats({}, first->start().timeIntervalSince1970(),
                                next ? std::optional(next->start().timeIntervalSince1970()) : std::nullopt, 0);
  if (!chats)
    return problem(503, "The chat history cannot be read now; try again in a moment.");
  const std::string previousText = number == 1 ? std::to_string(year - 1) + "-12" : monthText(int64_t{year} * 12 + number - 2);
  std::string body = "<h1>" + std::string(kMonthNames[number - 1]) + " " + std::to_string(year) +
                     "</h1>\n<nav class=\"around\"><a rel=\"prev\" href=\"/month/" + previousText + "\">" +
                     previousText + "</a> <a href=\"/calendar\">Calendar</a> <a rel=\"next\" href=\"/month/" +
                     nextText + "\">" + nextText + "</a></nav>\n" + chatListHtml(*chats);
  return {200, "text/html; charset=utf-8", PageShell::page(asked, {}, body)};
}

} // namespace parlova
