#include "web/SearchPage.h"

#include <algorithm>
#include <map>
#include <optional>
#include <variant>

#include "foundation/HtmlText.h"
#include "foundation/JsonText.h"
#include "foundation/LocalDay.h"
#include "history/HitJson.h"
#include "history/MessageSearch.h"
#include "history/PeopleAndChats.h"
#include "web/ChatListHtml.h"
#include "web/LocalTimeText.h"
#include "web/MessageHtml.h"
#include "web/PageShell.h"
#include "web/ReadConnections.h"
#include "web/UrlText.h"

namespace parlova {

namespace {

// The search a request asks for, or why it cannot be made.
struct AskedFor {
  SearchForm form;
  SearchOptions options;
  std::vector<std::string> with; // as typed
  size_t page = 0;
  std::string format;
  std::string problem;
};

AskedFor readRequest(const WebRequest &request) {
  AskedFor asked;
  SearchForm &form = asked.form;
  form.query = request.parameter("q").value_or("");
  for (std::string &person : request.all("with"))
    if (person.find_first_not_of(' ') != std::string::npos)
      asked.with.push_back(std::move(person));
  form.with = asked.with.empty() ? "" : asked.with.front();
  form.since = request.parameter("since").value_or("");
  form.until = request.parameter("until").value_or("");
  form.links = request.parameter("links") == "1";
  form.pictures = request.parameter("pictures") == "1";
  form.byDate = request.parameter("sort") == "date";
  asked.format = request.parameter("format").value_or("");
  const std::string page = request.parameter("page").value_or("0");
  if (page.empty() || page.size() > 4 || page.find_first_not_of("0123456789") != std::string::npos)
    asked.problem = "page needs a whole number";
  else
    asked.page = std::stoul(page);
  if (form.query.size() > SearchPage::kLongestQuery)
    asked.problem = "the query is longer than " + std::to_string(SearchPage::kLongestQuery) + " bytes";
  for (const auto &[text, into, dayAfter] :
       {std::tuple{&form.since, &asked.options.since, false}, std::tuple{&form.until, &asked.options.until, true}}) {
    if (text->empty())
      continue;
    const auto day = LocalDay::parse(*text);
    if (!day)
      asked.problem = "a date is needed as YYYY-MM-DD";
    else
      *into = (dayAfter ? day->next() : *day).start().timeIntervalSince1970();
  }
  SearchOptions &options = asked.options;
  options.query = form.query;
  options.withLinks = form.links;
  options.withPictures = form.pictures;
  options.byDate = form.byDate;
  options.limit = SearchPage::kHitsPerPage;
  options.skip = asked.page * SearchPage::kHitsPerPage;
  options.context = 1;
  options.markOpen = std::string(kMatchOpen);
  options.markClose = std::string(kMatchClose);
  if (options.skip >= static_cast<size_t>(SearchPage::kMostCounted))
    asked.problem = "only the first " + std::to_string(SearchPage::kMostCounted) + " hits are shown; add a word";
  return asked;
}

// The search's address with the form's values, on page `page`, or for one
// year (its bar in the chart).
std::string searchAddress(const SearchForm &form, size_t page, std::optional<int> year = std::nullopt) {
  std::string address = "/search?q=" + percentEncoded(form.query);
  if (!form.with.empty())
    address += "&with=" + percentEncoded(form.with);
  const std::string since = year ? std::to_string(*year) + "-01-01" : form.since;
  const std::string until = year ? std::to_string(*year) + "-12-31" : form.until;
  if (!since.empty())
    address += "&since=" + percentEncoded(since);
  if (!until.empty())
    address += "&until=" + percentEncoded(until);
  address += form.links ? "&links=1" : "";
  address += form.pictures ? "&pictures=1" : "";
  address += form.byDate ? "&sort=date" : "";
  if (page > 0)
    address += "&page=" + std::to_string(page);
  return address;
}

std::string chatAddress(const SearchHit &hit) {
  const std::string row = std::to_string(hit.row);
  return "/chat/" + std::to_string(hit.chat) + "?at=" + row + "#m" + row;
}

std::string twoDigits(int year) {
  const int within = (year % 100 + 100) % 100;
  return std::string(1, static_cast<char>('0' + within / 10)) + static_cast<char>('0' + within % 10);
}

// The hits by year, each bar a link that narrows the search to its year.
std::string yearChart(const HitCount &count, const SearchForm &form) {
  std::vector<std::pair<int, int64_t>> years;
  for (const auto &year : count.years)
    if (year.first > 0)
      years.push_back(year);
  if (years.size() < 2 || count.more)
    return {};
  int64_t most = 1;
  for (const auto &year : years)
    most = std::max(most, year.second);
  const int first = years.front().first, last = years.back().first;
  constexpr int kBar = 28, kHeight = 60;
  const int width = (last - first + 1) * kBar;
  std::string svg = "<svg class=\"years\" role=\"img\" aria-label=\"hits by year\" width=\"" + std::to_string(width) +
                    "\" height=\"" + std::to_string(kHeight + 14) + "\" viewBox=\"0 0 " + std::to_string(width) +
                    " " + std::to_string(kHeight + 14) + "\">";
  for (const auto &[year, hits] : years) {
    const int x = (year - first) * kBar;
    const auto height = std::max<int64_t>(1, hits * kHeight / most);
    svg += "<a href=\"" + escapedForHtml(searchAddress(form, 0, year)) + "\"><title>" + std::to_string(year) + ": " +
           std::to_string(hits) + "</title><rect x=\"" + std::to_string(x + 2) + "\" y=\"" +
           std::to_string(kHeight - height) + "\" width=\"" + std::to_string(kBar - 4) + "\" height=\"" +
           std::to_string(height) + "\"/><text x=\"" + std::to_string(x + kBar / 2) + "\" y=\"" +
           std::to_string(kHeight + 12) + "\">" + twoDigits(year) + "</text></a>";
  }
  return svg + "</svg>";
}

std::string messageLine(const SearchHit::Message &said, const std::string &text, const char *kind) {
  return std::string("<div class=\"") + kind + "\"><time>" + localTimeText(said.time, "%H:%M") + "</time> <b>" +
         escapedForHtml(said.speaker) + "</b> <span class=\"text\">" + messageHtml(text) + "</span></div>";
}

std::string hitsHtml(const std::vector<SearchHit> &hits, const HitCount &count, const AskedFor &asked) {
  std::string html = "<div id=\"results\">\n<p class=\"count\">";
  const size_t first = asked.options.skip;
  if (count.total == 0) {
    html += "No message holds that.</p>\n</div>";
    return html;
  }
  html += (count.more ? "More than " : "") + std::to_string(count.total) +
          (count.total == 1 && !count.more ? " message" : " messages");
  if (hits.size() < static_cast<size_t>(count.total) || count.more)
    html += ", " + std::to_string(first + 1) + "\xE2\x80\x93" + std::to_string(first + hits.size()) + " shown";
  html += asked.form.byDate ? ", oldest first" : count.total <= kMostRanked ? ", best first" : ", newest first";
  html += "</p>\n" + yearChart(count, asked.form) + "\n<ol class=\"hits\">\n";
  for (const SearchHit &hit : hits) {
    html += "<li class=\"hit\"><a class=\"open\" href=\"" + escapedForHtml(chatAddress(hit)) + "\"><span class=\"who\">" +
            escapedForHtml(hit.chatName) + "</span> <time>" + localTimeText(hit.message.time, "%Y-%m-%d %H:%M") +
            "</time></a>\n";
    for (const auto &said : hit.before)
      html += messageLine(said, said.text, "context");
    html += messageLine(hit.message, hit.marked, "said");
    for (const auto &said : hit.after)
      html += messageLine(said, said.text, "context");
    html += "</li>\n";
  }
  html += "</ol>\n<nav class=\"pages\">";
  if (asked.page > 0)
    html += "<a rel=\"prev\" href=\"" + escapedForHtml(searchAddress(asked.form, asked.page - 1)) + "\">Earlier hits</a> ";
  if (first + hits.size() < static_cast<size_t>(count.total) && first + hits.size() < SearchPage::kMostCounted)
    html += "<a rel=\"next\" href=\"" + escapedForHtml(searchAddress(asked.form, asked.page + 1)) + "\">More hits</a>";
  return html + "</nav>\n</div>";
}

WebAnswer problemAnswer(const AskedFor &asked, int status, const std::string &problem) {
  if (asked.format == "json")
    return {status, "application/json; charset=utf-8", "{\"error\":" + jsonString(problem) + "}\n"};
  const std::string part = "<div id=\"results\"><p class=\"problem\">" + escapedForHtml(problem) + "</p></div>";
  if (asked.format == "part")
    return {status, "text/html; charset=utf-8", part};
  return {status, "text/html; charset=utf-8", PageShell::page("Search", asked.form, part)};
}

} // namespace

WebAnswer SearchPage::answer(const WebRequest &request, const std::string &origin) const {
  AskedFor asked = readRequest(request);
  if (!asked.problem.empty())
    return problemAnswer(asked, 400, asked.problem);
  auto leased = history_.lease();
  if (auto *why = std::get_if<std::string>(&leased))
    return problemAnswer(asked, 503, *why);
  SqliteDatabase &history = std::get<ReadConnections::Lease>(leased).database();

  PeopleAndChats people(history);
  if (!asked.with.empty()) {
    const auto everybody = people.people();
    if (!everybody)
      return problemAnswer(asked, 503, "The chat history cannot be read now; try again in a moment.");
    auto resolved = PeopleAndChats::resolve(*everybody, asked.with);
    if (const auto *why = std::get_if<std::string>(&resolved))
      return problemAnswer(asked, 400, *why);
    asked.options.with = std::move(std::get<std::vector<std::string>>(resolved));
  }
  const bool noWords = asked.form.query.find_first_not_of(' ') == std::string::npos;
  if (noWords && asked.format != "json") {
    std::string body;
    if (!asked.options.with.empty() || asked.options.since || asked.options.until) {
      const auto chats = people.chats(asked.options.with, asked.options.since, asked.options.until, kHitsPerPage,
                                      asked.options.skip);
      if (!chats)
        return problemAnswer(asked, 503, "The chat history cannot be read now; try again in a moment.");
      body = "<div id=\"results\">" + chatListHtml(*chats) + "<nav class=\"pages\">" +
             (chats->size() == kHitsPerPage
                  ? "<a rel=\"next\" href=\"" + escapedForHtml(searchAddress(asked.form, asked.page + 1)) +
                        "\">More chats</a>"
                  : std::string()) +
             "</nav></div>";
    } else {
      body = "<div id=\"results\"><p class=\"hint\">Type to search every message; words, \"a phrase\", prefix*, "
             "OR, NOT. Or browse by <a href=\"/people\">person</a> or <a href=\"/calendar\">month</a>.</p></div>";
    }
    if (asked.format == "part")
      return {200, "text/html; charset=utf-8", body};
    return {200, "text/html; charset=utf-8", PageShell::page("Search", asked.form, body)};
  }

  const auto found = searchMessages(history, asked.options);
  // A first page that is not full holds every hit: nothing to count.
  const auto counted = [&]() -> std::variant<HitCount, SearchFailure> {
    if (const auto *failure = std::get_if<SearchFailure>(&found))
      return *failure;
    const auto &hits = std::get<std::vector<SearchHit>>(found);
    if (asked.options.skip > 0 || hits.size() >= kHitsPerPage)
      return countHits(history, asked.options, kMostCounted);
    HitCount count;
    count.total = static_cast<int64_t>(hits.size());
    std::map<int, int64_t> years;
    for (const SearchHit &hit : hits)
      ++years[hit.message.time ? std::stoi(localTimeText(hit.message.time, "%Y")) : 0];
    count.years.assign(years.begin(), years.end());
    return count;
  }();
  for (const auto *failure : {std::get_if<SearchFailure>(&found), std::get_if<SearchFailure>(&counted)})
    if (failure)
      return problemAnswer(asked, failure->kind == SearchFailure::Kind::Busy ? 503 : 400,
                           failure->kind == SearchFailure::Kind::Busy
                               ? "The chat history is being written; try again in a moment."
                               : failure->reason);
  const auto &hits = std::get<std::vector<SearchHit>>(found);
  const auto &count = std::get<HitCount>(counted);

  if (asked.format == "json") {
    std::string json = "{\"query\":" + jsonString(asked.form.query) + ",\"total\":" + std::to_string(count.total) +
                       ",\"more\":" + (count.more ? "true" : "false") + ",\"hits\":[";
    for (const SearchHit &hit : hits) {
      std::optional<std::string> page;
      std::error_code error;
      if (!hit.page.empty() && std::filesystem::exists(chatLibrary_ / hit.page, error))
        page = (chatLibrary_ / hit.page).string();
      json += (&hit == &hits.front() ? "\n" : ",\n") +
              hitJson(hit, page, ",\"url\":" + jsonString(origin + chatAddress(hit)));
    }
    return WebAnswer::json(json + "]}\n");
  }
  const std::string part = hitsHtml(hits, count, asked);
  if (asked.format == "part")
    return {200, "text/html; charset=utf-8", part};
  return {200, "text/html; charset=utf-8", PageShell::page(asked.form.query, asked.form, part)};
}

} // namespace parlova
