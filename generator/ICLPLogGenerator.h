// Everything built from the whole history of processed transcripts: the
// link archive and pages, the image archive and pages, and the statistics.
// All of it lives in ~/Library/Parlova; nothing is kept between calls.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "foundation/PropertyListValue.h"
#include "generator/StatisticsPage.h"
#include "model/ContentRecords.h"
#include "platform/FileManager.h"

namespace parlova {

class ICLPChatLog;

class ICLPLogGenerator {
public:
  ICLPLogGenerator() = delete;

  // Merges the transcript's links into gatheredURLs.plist and rebuilds the
  // link pages; with no transcript only the pages are rebuilt.
  static void GenerateLinkFiles(const ICLPChatLog *log);
  // Stores the transcript's attachments in Images/, records them in
  // gatheredImages.plist and rebuilds the image pages and the top images;
  // with no transcript only the pages and top images are rebuilt.
  static void GenerateImageFiles(const ICLPChatLog *log);
  // Adds the transcript to the running totals in chatgeist.plist and
  // rebuilds the statistics page; with no transcript only the chat count and
  // the end date change.
  static void UpdateStatistics(const ICLPChatLog *log);

  // The stages' pieces, for a catch-up that keeps the archives in memory
  // across many transcripts and writes them when it chooses. `asStored`
  // (may be empty) is given every entry before it joins an archive, to make
  // it what it would be once written to the file and read back.
  // The stage sorts every person's list; sorting only the lists the
  // transcript added to gives the same archive once every list is sorted.
  using EntryFilter = std::function<void(PlistValue &)>;
  enum class Sorting { EveryList, ListsAddedTo };
  // Both answer how many links or files the transcript had.
  static size_t MergeLinks(const ICLPChatLog &log, PlistValue::Array &archive, const EntryFilter &asStored,
                           Sorting sorting);
  // Stores the attachments in Images/ and, with an archive, records them.
  // A batch flushes what it stored once, before it writes the archives.
  static size_t StoreImages(const ICLPChatLog &log, PlistValue::Array *archive, const EntryFilter &asStored,
                            Sorting sorting, Durability durability = Durability::Now);
  static void RebuildLinkPages(const PlistValue::Array &archive);
  // The image pages and Images/topimages.
  static void RebuildImagePages(const PlistValue::Array &archive);

  // The totals file as the statistics stage finds it: missing, unreadable
  // (no contents) or read.
  struct TotalsFile {
    bool exists = false;
    std::optional<std::vector<uint8_t>> contents;
  };
  struct WordLists {
    std::optional<WordSet> curses;
    std::optional<WordSet> netspeak;
  };
  static TotalsFile ReadTotalsFile();
  static WordLists ReadWordLists();
  // What one transcript adds to the totals; counted once, it serves the
  // history as well.
  struct ChatCounts {
    WordCounts user;
    WordCounts others;
    int64_t links = 0;
    int64_t pictures = 0;
  };
  static ChatCounts CountChat(const ICLPChatLog &log, const WordLists &lists);
  // The totals after `log` (or, with no transcript, after a run that only
  // moves the end date), starting from `file`.
  static StatisticsTotals AddToTotals(const ICLPChatLog *log, const TotalsFile &file, const WordLists &lists);
  // The same with the transcript's counts already made.
  static StatisticsTotals AddToTotals(const ICLPChatLog &log, const ChatCounts &counts, const TotalsFile &file);
  // The totals file's contents; empty when they could not be serialized.
  static std::vector<uint8_t> SerializedTotals(const StatisticsTotals &totals);
  static void RebuildStatisticsPage(const StatisticsTotals &totals);
  // The totals as the file holds them, for drawing the page again without
  // counting anything; nothing without a totals file.
  static std::optional<StatisticsTotals> StoredTotals();

  // The "urls" list of the first speaker entry named exactly `speaker`, or
  // null; the list is the archive's own, so what is added lands there.
  static PlistValue::Array *FindSpeakerArray(std::string_view speaker, PlistValue::Array *data);
  // The same for the image archive's "filenames" lists.
  static PlistValue::Array *FindImagesArray(std::string_view speaker, PlistValue::Array *data);

  // A link of more than 40 UTF-16 units as its first 20, " . . . " and its
  // last 20.
  static std::string CompressedLinkForList(std::string_view link);
  // Percent-escapes every UTF-16 unit other than ASCII letters and digits,
  // the high digit taken as "A" + (unit >> 4) - 10 past 9 even above 255.
  static std::string stringWithFunkyURLStuffInserted(std::string_view text);

  // The name an attached file is stored under in the image folder.
  static std::string StoredImageName(const FileWrapper &attachment, const std::string &speaker, Date time);

  // ~/Library/Parlova, where the archives, templates and pages live.
  static std::filesystem::path parlovaFolder();
  // The names of the program's own files and folders there, which no page
  // or stored file named after a speaker may take.
  static std::span<const std::string_view> ownFileNames();
  // The files that remember history (links, images, totals) there; every
  // one of them is only ever replaced whole, never changed in place.
  static std::span<const std::string_view> archiveFileNames();
};

} // namespace parlova
