#include "generator/ChatLibrary.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <map>
#include <vector>

#include "context/Settings.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/LibraryPageNames.h"
#include "generator/LinkedPageBody.h"
#include "generator/PageText.h"
#include "history/ChatHistory.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/SafeFileName.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

// Names in the library's folders that a person or a chat must not take.
constexpr std::array<std::string_view, 1> kLibraryOwnNames = {"index.html"};

std::string localTime(std::optional<double> seconds, const char *format) {
  if (!seconds)
    return {};
  const auto time = static_cast<std::time_t>(*seconds);
  std::tm local{};
  localtime_r(&time, &local);
  char text[64];
  std::strftime(text, sizeof text, format, &local);
  return text;
}

// A path for an href: every byte but the unreserved ones and "/" as %XX
// of its UTF-8.
std::string hrefOf(std::string_view path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string href;
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) || c == '-' || c == '.' || c == '_' || c == '~' || c == '/') {
      href += c;
    } else {
      href += '%';
      href += kHex[byte >> 4];
      href += kHex[byte & 0xF];
    }
  }
  return href;
}

// Accounts that only a cleaned name would bring together ("a/b" and "a_b")
// keep folders of their own.
std::string personFolder(const std::string &account) { return distinctFileStem(account, "", kLibraryOwnNames); }

// The pages given so far, read from the history when first needed.
LibraryPageNames &givenPages() {
  static LibraryPageNames names = [] {
    auto history = ChatHistory::openExisting();
    const auto given = history ? history->pageKeys() : std::nullopt;
    return LibraryPageNames(given.value_or(std::vector<std::pair<std::string, std::string>>{}));
  }();
  return names;
}

// The template with all but its contents filled in.
std::string framed(std::string page, const std::string &title, const std::string &heading, const std::string &nav) {
  replaceOccurrences(page, "____TITLE", title);
  replaceOccurrences(page, "____HEADING", heading);
  replaceOccurrences(page, "____NAV", nav);
  return page;
}

// The contents go in last: the rest was typed by others and may hold a
// placeholder.
std::string filled(std::string page, const std::string &title, const std::string &heading, const std::string &nav,
                   const std::string &contents) {
  page = framed(std::move(page), title, heading, nav);
  replaceOccurrences(page, "____CONTENTS", contents);
  return page;
}

// A file's label on the page: never empty.
std::string labelOf(const FileWrapper &attachment, const PageEscaping &escaping) {
  const auto &name = attachment.preferredFilename();
  return name && !name->empty() ? "[" + escaping.text(*name) + "]" : "[attached item]";
}

// Each attached file's label, and the link it becomes where the image
// folder holds the file's stored copy.
LinkedPageBody linkedBody(const ICLPChatLog &log, const PageEscaping &escaping) {
  const fs::path images = ICLPLogGenerator::parlovaFolder() / "Images";
  std::vector<LinkedPageBody::Label> labels;
  log.forEachImageRecord([&](const ImageRecord &item) {
    for (const auto &attachment : item.images) {
      LinkedPageBody::Label label{labelOf(*attachment, escaping), std::nullopt};
      const std::string stored = ICLPLogGenerator::StoredImageName(*attachment, item.speaker, item.time);
      if (fileExistsAtPath(images / stored))
        label.link = "<a href=\"../../Images/" + hrefOf(stored) + "\">" + label.text + "</a>";
      labels.push_back(std::move(label));
    }
  });
  return LinkedPageBody(std::move(labels));
}

} // namespace

bool ChatLibrary::wanted() { return appSettings().boolValue("keepChatPages"); }

fs::path ChatLibrary::folder() { return ICLPLogGenerator::parlovaFolder() / "Chats"; }

std::string ChatLibrary::pagePath(const ChatRecord &record) {
  const std::string when = record.firstTime ? localTime(record.firstTime, "%Y-%m-%d at %H.%M.%S") : record.key;
  const std::string page = personFolder(record.account) + "/" + safeFileStem(when, ".html", kLibraryOwnNames) + ".html";
  return givenPages().claim(page, record.key);
}

bool ChatLibrary::writeChatPage(const ICLPChatLog &log, const ChatRecord &record, Durability durability) {
  const auto pageTemplate = readTemplate(ICLPLogGenerator::parlovaFolder() / "chattemplate.html");
  if (!pageTemplate)
    return false;
  const PageEscaping escaping(true);
  const std::string name = escaping.text(record.displayName);
  const std::string when = localTime(record.firstTime, "%Y-%m-%d %H:%M");
  const std::string nav = "<a href=\"../index.html\">All people</a> &middot; <a href=\"index.html\">All chats with " +
                          name + "</a>" + (when.empty() ? "" : " &middot; " + when);
  const fs::path page = folder() / (record.page ? *record.page : pagePath(record));
  std::error_code error;
  fs::create_directories(page.parent_path(), error);
  // A chat's page is as long as the chat: written around its body, never
  // copied into the template.
  const std::string frame = framed(*pageTemplate, name + (when.empty() ? "" : ", " + when), "Chat with " + name, nav);
  // Made whole up to about 5 MB, where making it twice costs more.
  constexpr size_t kStreamedFrom = 20000; // messages
  return writePage(page,
                   madeReplacing(frame, "____CONTENTS",
                                 [&](const PieceSink &piece) {
                                   writePageBody(log, log.messages().size() > kStreamedFrom, piece);
                                 }),
                   durability);
}

void ChatLibrary::writePageBody(const ICLPChatLog &log, bool streamed, const PieceSink &piece) {
  // These pages are escaped whatever escapeHTML says: they are read in a
  // browser, with every other page of the library at hand.
  const PageEscaping escaping(true);
  const LinkedPageBody body = linkedBody(log, escaping);
  if (streamed)
    body.write([&log](const PieceSink &html) { log.writeHTMLChatLog(true, html); }, piece);
  else
    piece(body.linked(log.HTMLChatLogText(true)));
}

void ChatLibrary::rebuildIndexPages() {
  const auto pageTemplate = readTemplate(ICLPLogGenerator::parlovaFolder() / "chattemplate.html");
  auto history = ChatHistory::openExisting();
  const auto chats = history ? history->library() : std::nullopt;
  if (!pageTemplate || !chats)
    return;
  const PageEscaping escaping(true);
  struct Person {
    std::string name;
    std::optional<double> last;
    int64_t chats = 0;
    int64_t words = 0;
    std::string rows;
    std::string year;
  };
  // By account, each person's chats oldest first, as the query gives them.
  std::map<std::string, Person> people;
  for (const LibraryChat &chat : *chats) {
    Person &person = people[chat.account];
    person.name = chat.displayName;
    person.last = chat.lastTime ? chat.lastTime : person.last;
    ++person.chats;
    person.words += chat.words;
    const std::string year = localTime(chat.firstTime, "%Y");
    if (year != person.year || person.rows.empty()) {
      if (!person.rows.empty())
        person.rows += "</table>\n";
      person.rows += "<h3>" + (year.empty() ? std::string("Undated") : year) +
                     "</h3>\n<table><tr><th>Date</th><th>Messages</th><th>First line</th></tr>\n";
      person.year = year;
    }
    const std::string page = chat.page.substr(chat.page.find('/') + 1);
    person.rows += "<tr><td><a href=\"" + hrefOf(page) + "\">" +
                   (chat.firstTime ? localTime(chat.firstTime, "%Y-%m-%d %H:%M") : std::string("undated")) +
                   "</a></td><td class=\"n\">" + thousands(chat.messages) + "</td><td class=\"first\">" +
                   escaping.text(chat.firstLine) + "</td></tr>\n";
  }
  std::vector<std::pair<std::string, const Person *>> byLast;
  for (auto &[account, person] : people) {
    person.rows += "</table>";
    const std::string name = escaping.text(person.name);
    const fs::path page = folder() / personFolder(account) / "index.html";
    std::error_code error;
    fs::create_directories(page.parent_path(), error);
    writePage(page, filled(*pageTemplate, name, "Chats with " + name,
                           "<a href=\"../index.html\">All people</a> &middot; " + thousands(person.chats) +
                               (person.chats == 1 ? " chat" : " chats"),
                           person.rows));
    byLast.emplace_back(account, &person);
  }
  std::stable_sort(byLast.begin(), byLast.end(),
                   [](const auto &a, const auto &b) { return a.second->last.value_or(0) > b.second->last.value_or(0); });
  std::string rows = "<table><tr><th>Person</th><th>Last chat</th><th>Chats</th><th>Words</th></tr>\n";
  for (const auto &[account, person] : byLast)
    rows += "<tr><td><a href=\"" + hrefOf(personFolder(account)) + "/index.html\">" + escaping.text(person->name) +
            "</a></td><td>" + localTime(person->last, "%Y-%m-%d") + "</td><td class=\"n\">" +
            thousands(person->chats) + "</td><td class=\"n\">" + thousands(person->words) + "</td></tr>\n";
  rows += "</table>";
  writePage(folder() / "index.html",
            filled(*pageTemplate, "All people", "Chats", thousands(chats->size()) + " chats with " +
                                                             thousands(people.size()) + " people",
                   rows));
}

} // namespace parlova
