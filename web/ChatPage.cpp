#include "web/ChatPage.h"

#include <algorithm>
#include <variant>
#include <vector>

#include "foundation/HtmlText.h"
#include "history/PeopleAndChats.h"
#include "web/LocalTimeText.h"
#include "web/MessageHtml.h"
#include "web/PageShell.h"
#include "web/PictureIndex.h"
#include "web/ReadConnections.h"
#include "web/UrlText.h"

namespace parlova {

namespace {

struct ChatFacts {
  int64_t id = 0;
  std::string account;
  std::string name;
  std::vector<std::string> participants;
  std::optional<double> time;
  int64_t messages = 0;
  int64_t firstRow = 0;
  bool group = false;

  int64_t lastRow() const { return firstRow + messages - 1; }
};

std::optional<int64_t> wholeNumber(const std::optional<std::string> &text) {
  if (!text || text->empty() || text->size() > 18 || text->find_first_not_of("0123456789") != std::string::npos)
    return std::nullopt;
  return std::stoll(*text);
}

WebAnswer notFound(const std::string &what) {
  return {404, "text/html; charset=utf-8", PageShell::page("Not found", {}, "<p class=\"problem\">" + what + "</p>")};
}

// The chat's row, and where its messages begin in the index: kept with
// the chat since the history's third version, else found by reading the
// index (slow, once for each page, until the next run brings it up).
std::variant<ChatFacts, WebAnswer> factsOf(SqliteDatabase &history, int64_t id) {
  auto prepared = history.prepare("SELECT account, display_name, participants, first_time, messages, first_row, "
                                  "is_group FROM chats WHERE id = ?1");
  const bool kept = std::holds_alternative<SqliteStatement>(prepared);
  if (!kept)
    prepared = history.prepare("SELECT account, display_name, participants, first_time, messages, "
                               "(SELECT min(rowid) FROM texts WHERE chat = ?1), is_group FROM chats WHERE id = ?1");
  auto *statement = std::get_if<SqliteStatement>(&prepared);
  if (!statement)
    return WebAnswer{503, "text/html; charset=utf-8", "The chat history cannot be read now."};
  statement->bind(1, id);
  const auto step = statement->step();
  if (std::holds_alternative<SqliteError>(step))
    return WebAnswer{503, "text/html; charset=utf-8", "The chat history cannot be read now."};
  if (!std::get<bool>(step))
    return notFound("There is no such chat.");
  ChatFacts facts;
  facts.id = id;
  facts.account = statement->text(0);
  facts.name = statement->text(1);
  facts.participants = PeopleAndChats::accountsIn(statement->text(2));
  if (!statement->isNull(3))
    facts.time = statement->real(3);
  facts.messages = statement->integer(4);
  facts.firstRow = statement->isNull(5) ? 0 : statement->integer(5);
  facts.group = statement->integer(6) != 0;
  if (statement->isNull(5))
    facts.messages = 0;
  return facts;
}

bool isPicture(const std::string &name) {
  const size_t dot = name.rfind('.');
  std::string extension = dot == std::string::npos ? "" : name.substr(dot + 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const char *shown : {"png", "jpg", "jpeg", "gif", "webp", "bmp"})
    if (extension == shown)
      return true;
  return false;
}

// Rows [from, to] of the chat, each a message; a day's heading before the
// first message of each day.
std::variant<std::string, WebAnswer> messagesHtml(SqliteDatabase &history, const ChatFacts &chat, int64_t from,
                                                  int64_t to, std::optional<int64_t> marked,
                                                  const PictureIndex::Sent &pictures) {
  auto prepared = history.prepare("SELECT texts.rowid, texts.time, s.account, s.name, texts.text FROM texts "
                                  "JOIN speakers s ON s.id = texts.speaker "
                                  "WHERE texts.rowid BETWEEN ?1 AND ?2 AND texts.chat = ?3 ORDER BY texts.rowid");
  auto *statement = std::get_if<SqliteStatement>(&prepared);
  if (!statement)
    return WebAnswer{503, "text/html; charset=utf-8", "The chat history cannot be read now."};
  statement->bind(1, from).bind(2, to).bind(3, chat.id);
  std::string html;
  std::string day;
  while (true) {
    const auto step = statement->step();
    if (std::holds_alternative<SqliteError>(step))
      return WebAnswer{503, "text/html; charset=utf-8", "The chat history cannot be read now."};
    if (!std::get<bool>(step))
      break;
    const int64_t row = statement->integer(0);
    const std::optional<double> time = statement->isNull(1) ? std::nullopt : std::optional(statement->real(1));
    const std::string account = statement->text(2);
    const std::string speaker = statement->text(3);
    const std::string thisDay = localTimeText(time, "%A %-d %B %Y");
    if (time && thisDay != day) {
      html += "<h2 class=\"day\">" + thisDay + "</h2>\n";
      day = thisDay;
    }
    const bool theirs = account == chat.account ||
                        std::find(chat.participants.begin(), chat.participants.end(), account) !=
                            chat.participants.end();
    html += "<div class=\"m" + std::string(theirs ? "" : " me") + (row == marked ? " hit" : "") + "\" id=\"m" +
            std::to_string(row) + "\"><time title=\"" + localTimeText(time, "%Y-%m-%d %H:%M:%S") + "\">" +
            localTimeText(time, "%H:%M") + "</time> <b class=\"s\">" + escapedForHtml(speaker) +
            "</b> <span class=\"text\">" + messageHtml(statement->text(4)) + "</span>";
    if (time)
      for (const std::string &stored : PictureIndex::sentBy(pictures, speaker, *time)) {
        const std::string address = "/library/" + percentEncoded(stored);
        const std::string name = stored.substr(stored.rfind('/') + 1);
        html += isPicture(stored) ? "<a class=\"pic\" href=\"" + escapedForHtml(address) + "\"><img src=\"" +
                                        escapedForHtml(address) + "\" alt=\"" + escapedForHtml(name) +
                                        "\" loading=\"lazy\"></a>"
                                  : "<a class=\"file\" href=\"" + escapedForHtml(address) + "\">" +
                                        escapedForHtml(name) + "</a>";
      }
    html += "</div>\n";
  }
  return html;
}

// Where the script loads more when the reader comes near an edge.
std::string edge(const ChatFacts &chat, const char *side, int64_t row) {
  return "<div class=\"more\" data-from=\"/chat/" + std::to_string(chat.id) + "/rows?" + side + "=" +
         std::to_string(row) + "\">\xE2\x80\xA6</div>\n";
}

enum class Edges { Both, Before, After };

// The window [from, to] with the edges that lead on: on both sides of a
// page's first window, on the far side of one that continues it.
std::variant<std::string, WebAnswer> window(SqliteDatabase &history, const ChatFacts &chat, int64_t from, int64_t to,
                                            std::optional<int64_t> marked, PictureIndex &pictures, Edges edges) {
  auto html = messagesHtml(history, chat, from, to, marked, *pictures.current());
  if (auto *text = std::get_if<std::string>(&html)) {
    if (from > chat.firstRow && edges != Edges::After)
      text->insert(0, edge(chat, "before", from));
    if (to < chat.lastRow() && edges != Edges::Before)
      *text += edge(chat, "after", to);
  }
  return html;
}

// The chat with the same person just before or after this one.
std::string neighbour(SqliteDatabase &history, const ChatFacts &chat, bool later) {
  if (!chat.time)
    return {};
  auto prepared = history.prepare(
      later ? "SELECT id, first_time FROM chats WHERE account = ?1 AND (first_time, id) > (?2, ?3) "
              "ORDER BY first_time, id LIMIT 1"
            : "SELECT id, first_time FROM chats WHERE account = ?1 AND (first_time, id) < (?2, ?3) "
              "ORDER BY first_time DESC, id DESC LIMIT 1");
  auto *statement = std::get_if<SqliteStatement>(&prepared);
  if (!statement)
    return {};
  statement->bind(1, chat.account).bind(2, *chat.time).bind(3, chat.id);
  const auto step = statement->step();
  if (!std::holds_alternative<bool>(step) || !std::get<bool>(step))
    return {};
  return std::string("<a rel=\"") + (later ? "next" : "prev") + "\" href=\"/chat/" +
         std::to_string(statement->integer(0)) + "\">" + (later ? "Next chat, " : "Previous chat, ") +
         localTimeText(statement->real(1), "%Y-%m-%d") + "</a>";
}

} // namespace

WebAnswer ChatPage::page(const WebRequest &request) const {
  const auto id = wholeNumber(request.pathParts.empty() ? std::nullopt : std::optional(request.pathParts[0]));
  if (!id)
    return notFound("There is no such chat.");
  auto leased = history_.lease();
  if (auto *why = std::get_if<std::string>(&leased))
    return {503, "text/html; charset=utf-8", PageShell::page("Chat", {}, "<p class=\"problem\">" + escapedForHtml(*why) + "</p>")};
  SqliteDatabase &history = std::get<ReadConnections::Lease>(leased).database();
  auto facts = factsOf(history, *id);
  if (auto *answer = std::get_if<WebAnswer>(&facts))
    return *answer;
  const ChatFacts &chat = std::get<ChatFacts>(facts);
  std::optional<int64_t> at = wholeNumber(request.parameter("at"));
  if (at && (*at < chat.firstRow || *at > chat.lastRow()))
    at.reset();
  const int64_t from = at ? std::max(chat.firstRow, *at - kReach) : chat.firstRow;
  const int64_t to = at ? std::min(chat.lastRow(), *at + kReach) : std::min(chat.lastRow(), chat.firstRow + 2 * kReach);
  auto messages = window(history, chat, from, to, at, pictures_, Edges::Both);
  if (auto *answer = std::get_if<WebAnswer>(&messages))
    return *answer;
  std::string whom;
  for (const std::string &account : chat.group ? chat.participants : std::vector<std::string>{chat.account})
    whom += (whom.empty() ? "" : ", ") + ("<a href=\"/person/" + escapedForHtml(percentEncoded(account)) + "\">" +
                                          escapedForHtml(account == chat.account ? chat.name : account) + "</a>");
  const std::string around = neighbour(history, chat, false) + " " + neighbour(history, chat, true);
  std::string body = "<article class=\"chat\"><h1>Chat with " + whom + "</h1>\n<p class=\"facts\"><time>" +
                     localTimeText(chat.time, "%Y-%m-%d %H:%M") + "</time>, " + std::to_string(chat.messages) +
                     (chat.messages == 1 ? " message" : " messages") + "</p>\n<nav class=\"around\">" + around +
                     "</nav>\n<div class=\"messages\">\n" + std::get<std::string>(messages) +
                     "</div>\n<nav class=\"around\">" + around + "</nav></article>";
  return {200, "text/html; charset=utf-8", PageShell::page("Chat with " + chat.name, {}, body)};
}

WebAnswer ChatPage::rows(const WebRequest &request) const {
  const auto id = wholeNumber(request.pathParts.empty() ? std::nullopt : std::optional(request.pathParts[0]));
  const auto before = wholeNumber(request.parameter("before"));
  const auto after = wholeNumber(request.parameter("after"));
  if (!id || (!before && !after))
    return {400, "text/html; charset=utf-8", "before=ROW or after=ROW"};
  auto leased = history_.lease();
  if (auto *why = std::get_if<std::string>(&leased))
    return {503, "text/html; charset=utf-8", escapedForHtml(*why)};
  SqliteDatabase &history = std::get<ReadConnections::Lease>(leased).database();
  auto facts = factsOf(history, *id);
  if (auto *answer = std::get_if<WebAnswer>(&facts))
    return *answer;
  const ChatFacts &chat = std::get<ChatFacts>(facts);
  const int64_t from = before ? std::max(chat.firstRow, *before - 2 * kReach) : *after + 1;
  const int64_t to = before ? *before - 1 : std::min(chat.lastRow(), *after + 2 * kReach);
  if (from > to || from < chat.firstRow || to > chat.lastRow())
    return {200, "text/html; charset=utf-8", ""};
  auto messages = window(history, chat, from, to, std::nullopt, pictures_, before ? Edges::Before : Edges::After);
  if (auto *answer = std::get_if<WebAnswer>(&messages))
    return *answer;
  return {200, "text/html; charset=utf-8", std::get<std::string>(messages)};
}

} // namespace parlova
