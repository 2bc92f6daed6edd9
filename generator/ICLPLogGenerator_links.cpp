// The link archive (gatheredURLs.plist) and the link pages built from it.
#include <map>

#include "context/ErrorReport.h"
#include "foundation/CalendarFormat.h"
#include "generator/DateComparators.h"
#include "generator/GatheredArchive.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/JoinedLinks.h"
#include "generator/PageText.h"
#include "model/ICLPChatLog.h"
#include "model/ICLPInstantMessage.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/SafeFileName.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kMonthHeading = R"(<h3>%@</h3><ul class="links">)";
constexpr std::string_view kLinkItem = R"(<li><span><a href="%@" target="_blank">%@</a> -- %@, %@</span></li>)";
// An address that may not become a link, with escaping on: shown as text.
constexpr std::string_view kTextItem = R"(<li><span>%@ -- %@, %@</span></li>)";

// An address stored in the archive, or one of a chat's links joined to it.
struct Link {
  Date date;
  const std::string *stored;
  const Object *joined;
  std::string address() const { return stored ? *stored : ICLPInstantMessage::addressOfLink(*joined); }
};

// A speaker entry as the pages see it; entries damaged by hand (no name, no
// list) and links without a date or address are left out of the pages but
// stay in the archive.
struct SpeakerLinks {
  const std::string *name;
  std::vector<Link> links;
  std::string pageStem;
};

std::vector<SpeakerLinks> pageView(const PlistValue::Array &archive, const JoinedLinks *joined) {
  std::vector<SpeakerLinks> speakers;
  for (size_t entry = 0; entry < archive.size(); ++entry) {
    const std::string *name = archive[entry].stringForKey("speaker");
    const PlistValue *list = archive[entry].objectForKey("urls");
    const auto *items = list ? list->get<PlistValue::Array>() : nullptr;
    if (!name || !items)
      continue;
    SpeakerLinks speaker{name, {}, safeFileStem(*name, ".html", ICLPLogGenerator::ownFileNames())};
    const auto take = [&speaker](const PlistValue &item) {
      const auto date = item.dateForKey("date");
      const std::string *url = item.stringForKey("linkurl");
      if (date && url)
        speaker.links.push_back({*date, url, nullptr});
    };
    if (joined && joined->joins(entry)) {
      joined->forEachItem(entry, [&](const PlistValue *stored, Date date, const Object *link) {
        if (stored)
          take(*stored);
        else
          speaker.links.push_back({date, nullptr, link});
      });
    } else {
      speaker.links.reserve(items->size());
      for (const PlistValue &item : *items)
        take(item);
    }
    speakers.push_back(std::move(speaker));
  }
  return speakers;
}

std::string navigationList(const std::vector<SpeakerLinks> &speakers, size_t total, std::optional<size_t> active,
                           const PageEscaping &escaping) {
  std::vector<IndexEntry> people;
  for (const SpeakerLinks &speaker : speakers)
    people.push_back({ICLPLogGenerator::stringWithFunkyURLStuffInserted(speaker.pageStem) + ".html",
                      escaping.text(*speaker.name), speaker.links.size()});
  return indexList({"Links.html", "All", total}, people, active);
}

std::string monthHeading(const std::string &title) {
  std::string heading(1, '\n');
  heading += fillFormat(kMonthHeading, {title});
  heading += '\n';
  return heading;
}

// A month on the all-links page: its heading, then the items every
// speaker's group has under its title, in speaker order. The items are
// made again from the links (a speaker's number and a range of links), so
// that a decade of links is never held as text.
struct MonthItems {
  std::string heading;
  struct Items {
    size_t speaker;
    size_t from, to;
  };
  std::vector<Items> items;
};

// A run of a speaker's links under one month's heading.
struct LinkGroup {
  const std::string *heading;
  size_t from, to;
};

// One speaker's links grouped by month, earliest first. Only the month
// number parts two groups, so the same month of consecutive years stays in
// one group under the first title. Each group also goes to the month's
// entry for the all-links page.
std::vector<LinkGroup> linkGroups(const SpeakerLinks &speaker, size_t speakerNumber,
                                  std::map<std::string, MonthItems> &monthTable) {
  std::vector<LinkGroup> groups;
  MonthItems *month = nullptr;
  int currentMonth = 0;
  const auto endGroup = [&](size_t at) {
    groups.back().to = at;
    month->items.push_back({speakerNumber, groups.back().from, at});
  };
  for (size_t at = 0; at < speaker.links.size(); ++at) {
    const Date date = speaker.links[at].date;
    if (const int linkMonth = localMonthOfYear(date); !month || linkMonth != currentMonth) {
      if (month)
        endGroup(at);
      const std::string title = formatCalendarDate(date, "%B %Y");
      month = &monthTable.try_emplace(title, MonthItems{monthHeading(title), {}}).first->second;
      groups.push_back({&month->heading, at, at});
      currentMonth = linkMonth;
    }
  }
  if (month)
    endGroup(speaker.links.size());
  return groups;
}

void writeLinkItems(const SpeakerLinks &speaker, size_t from, size_t to, const PageEscaping &escaping,
                    const std::function<void(std::string_view)> &piece) {
  const std::string who = escaping.text(*speaker.name);
  for (size_t at = from; at < to; ++at) {
    const Link &link = speaker.links[at];
    const std::string address = link.address();
    const std::string shown = escaping.text(ICLPLogGenerator::CompressedLinkForList(address));
    const std::string when = formatCalendarDate(link.date, "%a %B %e, %I:%M%p");
    piece(escaping.linkable(address) ? fillFormat(kLinkItem, {escaping.text(address), shown, who, when})
                                     : fillFormat(kTextItem, {shown, who, when}));
  }
}

// The template with its name and index filled in; the links go in last.
std::string filledTemplate(const std::string &pageTemplate, std::string_view name, const std::string &contents) {
  std::string page = pageTemplate;
  replaceOccurrences(page, "____NAME", name);
  replaceOccurrences(page, "____CONTENTS", contents);
  return page;
}

void generateLinkPages(const PlistValue::Array &archive, const fs::path &folder, const JoinedLinks *joined) {
  const auto pageTemplate = readTemplate(folder / "linktemplate.html");
  if (!pageTemplate)
    return;
  const std::vector<SpeakerLinks> speakers = pageView(archive, joined);
  size_t total = 0;
  for (const SpeakerLinks &speaker : speakers)
    total += speaker.links.size();
  const PageEscaping escaping = PageEscaping::fromSettings();
  // The pages can hold every link ever posted: their items are made as
  // they are written, never held.
  std::map<std::string, MonthItems> monthTable;
  for (size_t i = 0; i < speakers.size(); ++i) {
    const SpeakerLinks &speaker = speakers[i];
    // The last group is left open, as the pages always had it.
    const std::vector<LinkGroup> groups = linkGroups(speaker, i, monthTable);
    const std::string page =
        filledTemplate(*pageTemplate, escaping.text(*speaker.name), navigationList(speakers, total, i, escaping));
    writePage(folder / (speaker.pageStem + ".html"),
              madeReplacing(page, "____LINKS", [&](const std::function<void(std::string_view)> &piece) {
                for (const LinkGroup &group : groups) {
                  if (&group != &groups.front())
                    piece("</ul>");
                  piece(*group.heading);
                  writeLinkItems(speaker, group.from, group.to, escaping, piece);
                }
              }));
  }
  const auto months = newestFirst(monthTable, compareLinkDateString);
  const std::string page = filledTemplate(*pageTemplate, "Links", navigationList(speakers, total, std::nullopt, escaping));
  writePage(folder / "Links.html", madeReplacing(page, "____LINKS", [&](const std::function<void(std::string_view)> &piece) {
              for (const auto *month : months) {
                piece(month->second.heading);
                for (const MonthItems::Items &items : month->second.items)
                  writeLinkItems(speakers[items.speaker], items.from, items.to, escaping, piece);
                piece("</ul>");
              }
              piece("</ul>");
            }));
}

} // namespace

size_t ICLPLogGenerator::MergeLinks(const ICLPChatLog &log, PlistValue::Array &archive, const EntryFilter &asStored,
                                    Sorting sorting) {
  ListsAddedTo added(archive, "urls");
  size_t count = 0;
  log.forEachURLRecord([&](const LinkRecord &item) {
    if (item.urls.empty())
      return;
    PlistValue::Array *links = FindSpeakerArray(item.speaker, &archive);
    if (!links) {
      PlistValue::Array fresh;
      fresh.reserve(5);
      PlistValue entry(PlistValue::Dictionary{{"speaker", item.speaker}, {"urls", std::move(fresh)}});
      if (asStored)
        asStored(entry);
      archive.push_back(std::move(entry));
      links = archive.back().objectForKey("urls")->get<PlistValue::Array>();
    }
    if (sorting == Sorting::ListsAddedTo)
      added.note(links);
    count += item.urls.size();
    for (const std::string &url : item.urls) {
      PlistValue link(PlistValue::Dictionary{{"date", item.time}, {"linkurl", url}});
      if (asStored)
        asStored(link);
      links->push_back(std::move(link));
    }
  });
  if (sorting == Sorting::EveryList)
    sortEveryList(archive, "urls", compareLinkDictionaries);
  else
    added.sort(compareLinkDictionaries);
  return count;
}

void ICLPLogGenerator::RebuildLinkPages(const PlistValue::Array &archive) {
  generateLinkPages(archive, parlovaFolder(), nullptr);
}

void ICLPLogGenerator::GenerateLinkFiles(const ICLPChatLog *log) {
  const fs::path folder = parlovaFolder();
  const fs::path archivePath = folder / "gatheredURLs.plist";
  std::optional<PlistValue> archive = loadGatheredArchive(archivePath);
  PlistValue::Array *links = archive ? archive->get<PlistValue::Array>() : nullptr;

  // A chat's links join the archive only as it is written, where the XML
  // writer covers the archive: a long chat's links would otherwise be
  // held twice, in the chat and as items. The archive is serialized and
  // written a second time, as it always was; only a failure to serialize
  // is looked at.
  std::optional<JoinedLinks> joined;
  if (log) {
    if (archive && archive->writesXmlItself())
      joined.emplace(*log, *links);
    else if (archive)
      MergeLinks(*log, *links, {}, Sorting::EveryList);
    const auto written = [&](const PieceSink &piece) {
      if (joined)
        archive->writeXml(piece, joined->standIn());
      else
        archive->writeXml(piece);
    };
    if (!archive || !(joined ? writeArchiveXml(archivePath, *archive, joined->standIn())
                             : writeArchiveXml(archivePath, *archive))) {
      logFormat("Link file failed to write to path: %@", archivePath.string());
      reportErrorAndLog(1, "permissions");
      return;
    }
    if (!archive->writesXmlItself() && archive->serialized(PlistFormat::XML).empty()) {
      logFormat("Error while serializing link database: %@", "the link archive could not be turned into XML");
      reportErrorAndLog(4, "corrupt cache");
      return;
    }
    writeFileAtomically(archivePath, written, Durability::Now, Visibility::Private);
  }

  static const PlistValue::Array kNoLinks;
  generateLinkPages(links ? *links : kNoLinks, folder, joined ? &*joined : nullptr);
}

} // namespace parlova
