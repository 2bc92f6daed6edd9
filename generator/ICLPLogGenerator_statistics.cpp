// The running totals (chatgeist.plist) and the statistics page.
#include "generator/GatheredArchive.h"
#include "generator/HistoryCharts.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/PageText.h"
#include "generator/StatisticsPage.h"
#include "history/ChatHistory.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

// A shipped word list as a set; nothing when it is missing or is not a
// list, and then every word counts.
std::optional<WordSet> loadWordList(const fs::path &path) {
  const auto bytes = readFileContents(path);
  const auto parsed = bytes ? PlistValue::parse(*bytes) : std::nullopt;
  const auto *items = parsed ? parsed->get<PlistValue::Array>() : nullptr;
  if (!items)
    return std::nullopt;
  WordSet words;
  for (const PlistValue &item : *items)
    if (const auto *word = item.get<std::string>())
      words.insert(*word);
  return words;
}

// The stored counters, read as 32-bit integers the way a number object's
// intValue reads them; a missing key or an unparseable file reads as 0.
StatisticsTotals loadTotals(const ICLPLogGenerator::TotalsFile &file, const fs::path &folder) {
  StatisticsTotals totals;
  if (!file.exists) {
    totals.startDate = Date::now();
    return totals;
  }
  const auto stored = file.contents ? PlistValue::parse(*file.contents) : std::nullopt;
  const auto counter = [&](std::string_view key) {
    return stored ? static_cast<int32_t>(stored->integerForKey(key).value_or(0)) : 0;
  };
  totals.userWords = counter("usertextcount");
  totals.otherWords = counter("othertextcount");
  totals.userCurses = counter("cursecount");
  totals.userNetspeak = counter("netspeakcount");
  totals.images = counter("imagecount");
  totals.links = counter("linkcount");
  totals.chats = wrappingAdd(counter("chatcount"), 1);
  totals.otherCurses = counter("othercursecount");
  totals.otherNetspeak = counter("othernetspeakcount");
  totals.startDate = stored ? stored->dateForKey("startDate") : std::nullopt;
  if (!totals.startDate)
    totals.startDate = creationDateOfItem(folder);
  return totals;
}

void addCounts(const ICLPLogGenerator::ChatCounts &counts, StatisticsTotals &totals) {
  totals.userWords = wrappingAdd(totals.userWords, counts.user.all);
  totals.otherWords = wrappingAdd(totals.otherWords, counts.others.all);
  totals.userCurses = wrappingAdd(totals.userCurses, counts.user.inFirst);
  totals.otherCurses = wrappingAdd(totals.otherCurses, counts.others.inFirst);
  totals.userNetspeak = wrappingAdd(totals.userNetspeak, counts.user.inSecond);
  totals.otherNetspeak = wrappingAdd(totals.otherNetspeak, counts.others.inSecond);
  totals.images = wrappingAdd(totals.images, counts.pictures);
  totals.links = wrappingAdd(totals.links, counts.links);
}

// The eleven keys in their order. Without a start date the dictionary ends
// before it, so neither date is kept; without an end date it ends there.
PlistValue totalsDictionary(const StatisticsTotals &t) {
  PlistValue::Dictionary entries = {
      {"usertextcount", int64_t{t.userWords}},     {"othertextcount", int64_t{t.otherWords}},
      {"cursecount", int64_t{t.userCurses}},       {"netspeakcount", int64_t{t.userNetspeak}},
      {"imagecount", int64_t{t.images}},           {"linkcount", int64_t{t.links}},
      {"chatcount", int64_t{t.chats}},             {"othercursecount", int64_t{t.otherCurses}},
      {"othernetspeakcount", int64_t{t.otherNetspeak}}};
  if (t.startDate) {
    entries.emplace_back("startDate", *t.startDate);
    if (t.endDate)
      entries.emplace_back("endDate", *t.endDate);
  }
  return PlistValue(std::move(entries));
}

} // namespace

ICLPLogGenerator::TotalsFile ICLPLogGenerator::ReadTotalsFile() {
  const fs::path path = parlovaFolder() / "chatgeist.plist";
  if (!fileExistsAtPath(path))
    return {};
  return {true, readFileContents(path)};
}

ICLPLogGenerator::WordLists ICLPLogGenerator::ReadWordLists() {
  const fs::path folder = parlovaFolder();
  return {loadWordList(folder / "curses.plist"), loadWordList(folder / "netspeak.plist")};
}

ICLPLogGenerator::ChatCounts ICLPLogGenerator::CountChat(const ICLPChatLog &log, const WordLists &lists) {
  const WordSet *curseSet = lists.curses ? &*lists.curses : nullptr;
  const WordSet *netspeakSet = lists.netspeak ? &*lists.netspeak : nullptr;
  const auto words = log.CountWordsInSets(curseSet, netspeakSet);
  ChatCounts counts{words.user, words.others};
  log.forEachImageRecord(
      [&counts](const ImageRecord &item) { counts.pictures += static_cast<int64_t>(item.images.size()); });
  log.forEachURLObjectRecord(
      [&counts](const LinkObjectRecord &item) { counts.links += static_cast<int64_t>(item.links.size()); });
  return counts;
}

StatisticsTotals ICLPLogGenerator::AddToTotals(const ICLPChatLog *log, const TotalsFile &file,
                                               const WordLists &lists) {
  if (log)
    return AddToTotals(*log, CountChat(*log, lists), file);
  StatisticsTotals totals = loadTotals(file, parlovaFolder());
  totals.endDate = Date::now();
  return totals;
}

StatisticsTotals ICLPLogGenerator::AddToTotals(const ICLPChatLog &log, const ChatCounts &counts,
                                               const TotalsFile &file) {
  StatisticsTotals totals = loadTotals(file, parlovaFolder());
  addCounts(counts, totals);
  // An older transcript processed later moves the end back: the end date
  // always follows the last transcript.
  totals.endDate = log.LastMessageDate();
  return totals;
}

std::vector<uint8_t> ICLPLogGenerator::SerializedTotals(const StatisticsTotals &totals) {
  return totalsDictionary(totals).serialized(PlistFormat::XML);
}

void ICLPLogGenerator::RebuildStatisticsPage(const StatisticsTotals &totals) {
  const fs::path folder = parlovaFolder();
  if (const auto pageTemplate = readTemplate(folder / "statstemplate.html")) {
    std::string page = renderStatisticsPage(*pageTemplate, totals);
    std::optional<HistorySummary> summary;
    if (auto history = ChatHistory::openExisting())
      summary = history->summary();
    fillHistoryPlaceholders(page, summary);
    writePage(folder / "stats.html", page);
  }
}

std::optional<StatisticsTotals> ICLPLogGenerator::StoredTotals() {
  const TotalsFile file = ReadTotalsFile();
  if (!file.exists)
    return std::nullopt;
  StatisticsTotals totals = loadTotals(file, parlovaFolder());
  // As stored, not yet counting a new chat.
  totals.chats = wrappingAdd(totals.chats, -1);
  const auto stored = file.contents ? PlistValue::parse(*file.contents) : std::nullopt;
  totals.endDate = stored ? stored->dateForKey("endDate") : std::nullopt;
  return totals;
}

void ICLPLogGenerator::UpdateStatistics(const ICLPChatLog *log) {
  const TotalsFile file = ReadTotalsFile();
  // The word lists are read only when there are words to count.
  const StatisticsTotals totals = AddToTotals(log, file, log ? ReadWordLists() : WordLists{});
  const std::vector<uint8_t> bytes = SerializedTotals(totals);
  if (!bytes.empty())
    writeArchive(parlovaFolder() / "chatgeist.plist", bytes);
  RebuildStatisticsPage(totals);
}

} // namespace parlova
