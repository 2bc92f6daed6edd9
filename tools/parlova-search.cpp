// parlova-search: finds messages in every chat the history holds.
//
//   parlova-search [--with PERSON]... [--since DATE] [--until DATE] [--limit N]
//                  [--sort rank|date] [--context N] [--json] [QUERY...]
//   parlova-search --people [--json]
//
// Exit status as grep's: 0 something found, 1 nothing found, 2 trouble.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <unistd.h>
#include <variant>
#include <vector>

#include "foundation/JsonText.h"
#include "foundation/LocalDay.h"
#include "foundation/TerminalText.h"
#include "foundation/Unicode.h"
#include "history/HitJson.h"
#include "history/MessageSearch.h"
#include "history/PeopleAndChats.h"
#include "platform/Home.h"
#include "platform/SqliteDatabase.h"

namespace {

using parlova::SearchHit;
using parlova::terminalLine;

constexpr const char *kUsage =
    "usage: parlova-search [--with PERSON]... [--since DATE] [--until DATE] [--limit N]\n"
    "                      [--sort rank|date] [--context N] [--json] [QUERY...]\n"
    "       parlova-search --people [--json]\n"
    "\n"
    "Finds messages in every chat of the history (~/Library/Parlova/history.sqlite).\n"
    "QUERY: words (all must occur), \"a phrase\", prefix*, OR, NOT, NEAR(a b, 5).\n"
    "Without a QUERY, --with, --since and --until list the chats instead.\n"
    "  --people         everybody talked with: chats and the last one\n"
    "  --with PERSON    only chats with this account or name (any case), or the one\n"
    "                   person whose account or name begins so; again: any of them\n"
    "  --since DATE     from this day (YYYY-MM-DD, local time)\n"
    "  --until DATE     up to and including this day\n"
    "  --limit N        at most N hits (default 50; 0: all)\n"
    "  --sort rank|date best first (default) or oldest first\n"
    "  --context N      N messages before and after each hit\n"
    "  --json           one JSON object per hit (person, chat) and line\n"
    "  --               the rest is the query, even where it starts with -\n"
    "Exit status: 0 found, 1 nothing found, 2 trouble.\n";

int trouble(const std::string &line) {
  std::fprintf(stderr, "parlova-search: %s\n", line.c_str());
  return 2;
}

// A day as YYYY-MM-DD: its first instant in local time, or nothing.
std::optional<double> startOfDay(const std::string &text, bool dayAfter) {
  const auto day = parlova::LocalDay::parse(text);
  if (!day)
    return std::nullopt;
  return (dayAfter ? day->next() : *day).start().timeIntervalSince1970();
}

std::string localTime(std::optional<double> seconds, const char *format) {
  if (!seconds)
    return "?";
  const auto time = static_cast<std::time_t>(*seconds);
  std::tm local{};
  localtime_r(&time, &local);
  char text[64];
  std::strftime(text, sizeof text, format, &local);
  return text;
}

std::string json(const std::string &text) { return parlova::jsonString(text); }

// Where a hit's words begin and end, on a terminal: characters of the
// private use area, which survive the escaping of what the text holds, then
// made bold.
constexpr const char *kMarkOpen = "\xEE\x80\x80";
constexpr const char *kMarkClose = "\xEE\x80\x81";

std::string shownOnTerminal(const std::string &text, bool marked) {
  std::string shown = terminalLine(text);
  for (const auto &[mark, bold] : {std::pair{kMarkOpen, "\x1b[1m"}, std::pair{kMarkClose, "\x1b[0m"}})
    for (size_t at = marked ? shown.find(mark) : std::string::npos; at != std::string::npos; at = shown.find(mark, at))
      shown.replace(at, 3, bold);
  return shown;
}

// The chat's page in the library, when it has one that is there.
std::optional<std::string> pageOf(const SearchHit &hit) {
  if (hit.page.empty())
    return std::nullopt;
  const auto page = parlova::homeDirectory() / "Library" / "Parlova" / "Chats" / hit.page;
  std::error_code error;
  return std::filesystem::exists(page, error) ? std::optional(page.string()) : std::nullopt;
}

void printJson(const std::vector<SearchHit> &hits) {
  for (const SearchHit &hit : hits)
    std::printf("%s\n", parlova::hitJson(hit, pageOf(hit)).c_str());
}

void printPeople(const std::vector<parlova::HistoryPerson> &people, bool asJson) {
  for (const auto &person : people) {
    if (asJson)
      std::printf("{\"account\":%s,\"name\":%s,\"chats\":%lld,\"last\":%s}\n", json(person.account).c_str(),
                  json(person.name).c_str(), static_cast<long long>(person.chats),
                  person.lastChat ? json(parlova::isoLocalTime(person.lastChat)).c_str() : "null");
    else
      std::printf("%s%s  %lld chat%s, the last %s\n", terminalLine(person.account).c_str(),
                  person.name != person.account ? (" (" + terminalLine(person.name) + ")").c_str() : "",
                  static_cast<long long>(person.chats), person.chats == 1 ? "" : "s",
                  localTime(person.lastChat, "%Y-%m-%d").c_str());
  }
}

void printChats(const std::vector<parlova::HistoryChat> &chats, bool asJson) {
  const auto home = parlova::homeDirectory() / "Library" / "Parlova" / "Chats";
  for (const auto &chat : chats) {
    std::error_code error;
    const std::optional<std::string> page =
        !chat.page.empty() && std::filesystem::exists(home / chat.page, error)
            ? std::optional((home / chat.page).string())
            : std::nullopt;
    if (asJson) {
      std::string with = "[";
      for (const std::string &account : chat.with)
        with += (with.size() > 1 ? "," : "") + json(account);
      std::printf("{\"transcript\":%s,\"with\":%s],\"name\":%s,\"time\":%s,\"messages\":%lld,\"page\":%s}\n",
                  json(chat.transcript).c_str(), with.c_str(), json(chat.name).c_str(),
                  chat.time ? json(parlova::isoLocalTime(chat.time)).c_str() : "null", static_cast<long long>(chat.messages),
                  page ? json(*page).c_str() : "null");
      continue;
    }
    std::printf("%s  %s  %lld message%s\n  %s\n", localTime(chat.time, "%Y-%m-%d %H:%M").c_str(),
                terminalLine(chat.name).c_str(), static_cast<long long>(chat.messages),
                chat.messages == 1 ? "" : "s", terminalLine(chat.transcript).c_str());
    if (page)
      std::printf("  %s\n", terminalLine(*page).c_str());
  }
}

// Per chat, in the order its first hit came: a header line, the
// transcript's path, then each hit with the messages around it.
// `marked`: the hits' words carry the marks, to be shown bold.
void printForPeople(const std::vector<SearchHit> &hits, bool context, bool marked) {
  std::vector<int64_t> order;
  for (const SearchHit &hit : hits)
    if (std::find(order.begin(), order.end(), hit.chat) == order.end())
      order.push_back(hit.chat);
  const auto message = [marked](const SearchHit::Message &said, const std::string &text, const char *mark) {
    std::printf("%s%s  %s: %s\n", mark, localTime(said.time, "%H:%M").c_str(), terminalLine(said.speaker).c_str(),
                shownOnTerminal(text, marked).c_str());
  };
  bool first = true;
  for (const int64_t chat : order) {
    std::vector<const SearchHit *> inChat;
    for (const SearchHit &hit : hits)
      if (hit.chat == chat)
        inChat.push_back(&hit);
    std::sort(inChat.begin(), inChat.end(), [](const SearchHit *a, const SearchHit *b) { return a->row < b->row; });
    const SearchHit &any = *inChat.front();
    std::printf("%s%s  %s\n  %s\n", first ? "" : "\n", localTime(any.chatTime, "%Y-%m-%d %H:%M").c_str(),
                terminalLine(any.chatName).c_str(), terminalLine(any.transcript).c_str());
    if (const auto page = pageOf(any))
      std::printf("  %s\n", terminalLine(*page).c_str());
    first = false;
    for (const SearchHit *hit : inChat) {
      if (context && hit != inChat.front())
        std::printf("  --\n");
      for (const auto &said : hit->before)
        message(said, said.text, "    ");
      message(hit->message, hit->marked, context ? "  > " : "  ");
      for (const auto &said : hit->after)
        message(said, said.text, "    ");
    }
  }
}

} // namespace

int main(int argc, char **argv) {
  parlova::SearchOptions options;
  bool asJson = false;
  bool listPeople = false;
  std::vector<std::string> typedWith;
  bool endOfOptions = false; // after "--" every argument is the query's
  std::string query;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const auto value = [&]() -> std::optional<std::string> {
      return i + 1 < argc ? std::optional<std::string>(argv[++i]) : std::nullopt;
    };
    const auto count = [](const std::optional<std::string> &text) -> std::optional<size_t> {
      if (!text || text->empty() || text->find_first_not_of("0123456789") != std::string::npos || text->size() > 9)
        return std::nullopt;
      return static_cast<size_t>(std::stoul(*text));
    };
    if (endOfOptions) {
      query += (query.empty() ? "" : " ") + argument;
    } else if (argument == "--help" || argument == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (argument == "--json") {
      asJson = true;
    } else if (argument == "--people") {
      listPeople = true;
    } else if (argument == "--with") {
      const auto person = value();
      if (!person || person->empty())
        return trouble("--with needs a person's account or name");
      typedWith.push_back(*person);
    } else if (argument == "--since" || argument == "--until") {
      const auto text = value();
      const auto day = text ? startOfDay(*text, argument == "--until") : std::nullopt;
      if (!day)
        return trouble(argument + " needs a day as YYYY-MM-DD");
      (argument == "--since" ? options.since : options.until) = day;
    } else if (argument == "--limit" || argument == "--context") {
      const auto number = count(value());
      if (!number)
        return trouble(argument + " needs a whole number (0 or more)");
      (argument == "--limit" ? options.limit : options.context) = *number;
    } else if (argument == "--sort") {
      const auto order = value();
      if (order != "rank" && order != "date")
        return trouble("--sort takes rank or date");
      options.byDate = order == "date";
    } else if (argument == "--" && !endOfOptions) {
      endOfOptions = true;
    } else if (argument.size() > 1 && argument[0] == '-' && !endOfOptions) {
      return trouble("unknown option '" + argument + "' (try --help)");
    } else {
      query += (query.empty() ? "" : " ") + argument;
    }
  }
  options.query = query;
  if (!asJson && isatty(STDOUT_FILENO)) {
    options.markOpen = kMarkOpen;
    options.markClose = kMarkClose;
  }

  const std::filesystem::path file = parlova::homeDirectory() / "Library" / "Parlova" / "history.sqlite";
  const std::string noIndex =
      "there is no index of the chats yet; make it with: parlova --rebuild-history (and keep it with "
      "parlova-defaults write com.hollowmere.parlova keepHistory -bool YES)";
  if (!std::filesystem::exists(file))
    return trouble(noIndex);
  auto opened = parlova::SqliteDatabase::openForReading(file);
  if (std::holds_alternative<parlova::SqliteError>(opened))
    return trouble("the chat history " + file.string() + " cannot be read");
  auto &history = std::get<parlova::SqliteDatabase>(opened);
  const std::string unreadable = "the chat history " + file.string() + " cannot be read (a catch-up or a rebuild "
                                 "may be writing it; try again when it is done)";
  parlova::PeopleAndChats people(history);
  if (listPeople || !typedWith.empty()) {
    const auto everybody = people.people();
    if (!everybody)
      return trouble(unreadable);
    if (listPeople) {
      printPeople(*everybody, asJson);
      return everybody->empty() ? 1 : 0;
    }
    auto resolved = parlova::PeopleAndChats::resolve(*everybody, typedWith);
    // It names people as their chats name them: typed by others.
    if (const auto *why = std::get_if<std::string>(&resolved))
      return trouble(terminalLine(*why));
    options.with = std::move(std::get<std::vector<std::string>>(resolved));
  }
  if (query.find_first_not_of(" ") == std::string::npos && (!options.with.empty() || options.since || options.until)) {
    const auto chats = people.chats(options.with, options.since, options.until, options.limit);
    if (!chats)
      return trouble(unreadable);
    printChats(*chats, asJson);
    return chats->empty() ? 1 : 0;
  }
  const auto found = parlova::searchMessages(history, options);
  if (const auto *failure = std::get_if<parlova::SearchFailure>(&found)) {
    if (failure->kind == parlova::SearchFailure::Kind::NoIndex)
      return trouble(noIndex);
    if (failure->kind == parlova::SearchFailure::Kind::Unreadable)
      return trouble("the chat history " + file.string() + " cannot be read");
    if (failure->kind == parlova::SearchFailure::Kind::Busy)
      return trouble("the chat history is being written (a catch-up or a rebuild is under way); try again when it "
                     "is done");
    return trouble(failure->reason);
  }
  const auto &hits = std::get<std::vector<SearchHit>>(found);
  if (asJson)
    printJson(hits);
  else
    printForPeople(hits, options.context > 0, !options.markOpen.empty());
  return hits.empty() ? 1 : 0;
}
