#include "generator/ArchiveBatch.h"

#include "context/ErrorReport.h"
#include "generator/ChatLibrary.h"
#include "generator/ChatRecords.h"
#include "generator/GatheredArchive.h"
#include "model/ICLPChatLog.h"
#include "platform/DeferredSyncs.h"
#include "platform/FileManager.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

fs::path linkArchivePath() { return ICLPLogGenerator::parlovaFolder() / "gatheredURLs.plist"; }
fs::path imageArchivePath() { return ICLPLogGenerator::parlovaFolder() / "gatheredImages.plist"; }

} // namespace

// An archive from disk may hold lists out of order (edited by hand): the
// first transcript sorts them all, as a single run would.
ArchiveBatch::ArchiveBatch()
    : links_(loadGatheredArchive(linkArchivePath())), images_(loadGatheredArchive(imageArchivePath())),
      totals_(ICLPLogGenerator::ReadTotalsFile()) {}

// libplist reads back whatever it writes, so an entry that would not parse
// again cannot arise; it would be kept as it is.
void ArchiveBatch::asStored(PlistValue &entry) {
  if (auto stored = PlistValue::parse(entry.serialized(PlistFormat::XML)))
    entry = std::move(*stored);
}

size_t ArchiveBatch::addLinks(const ICLPChatLog &log) {
  if (!links_) {
    // A damaged archive is never replaced; each transcript says so again.
    logFormat("Link file failed to write to path: %@", linkArchivePath().string());
    reportErrorAndLog(1, "permissions");
    return 0;
  }
  using Sorting = ICLPLogGenerator::Sorting;
  const size_t count = ICLPLogGenerator::MergeLinks(log, *links_->get<PlistValue::Array>(),
                               [this](PlistValue &entry) { asStored(entry); },
                               linksSorted_ ? Sorting::ListsAddedTo : Sorting::EveryList);
  linksSorted_ = true;
  linksChanged_ = true;
  linkPagesDue_ = true;
  return count;
}

size_t ArchiveBatch::addImages(const ICLPChatLog &log) {
  using Sorting = ICLPLogGenerator::Sorting;
  PlistValue::Array *entries = images_ ? images_->get<PlistValue::Array>() : nullptr;
  const size_t count = ICLPLogGenerator::StoreImages(log, entries, [this](PlistValue &entry) { asStored(entry); },
                                imagesSorted_ ? Sorting::ListsAddedTo : Sorting::EveryList, Durability::ByNextSync);
  imagesSorted_ = true;
  imagesChanged_ = imagesChanged_ || entries != nullptr;
  imagePagesDue_ = true;
  return count;
}

ICLPLogGenerator::ChatCounts ArchiveBatch::addStatistics(const ICLPChatLog &log) {
  if (!wordLists_)
    wordLists_ = ICLPLogGenerator::ReadWordLists();
  const ICLPLogGenerator::ChatCounts counts = ICLPLogGenerator::CountChat(log, *wordLists_);
  const StatisticsTotals totals = ICLPLogGenerator::AddToTotals(log, counts, totals_);
  std::vector<uint8_t> bytes = ICLPLogGenerator::SerializedTotals(totals);
  // A totals file that cannot be made is not written, and the next
  // transcript starts from the one before.
  if (!bytes.empty())
    totals_ = {true, std::move(bytes)};
  lastTotals_ = totals;
  statisticsChanged_ = true;
  return counts;
}

void ArchiveBatch::addHistory(const ICLPChatLog &log, const ICLPLogGenerator::ChatCounts &counts, std::string key,
                              fs::path transcript) {
  statisticsChanged_ = true;
  historyChats_.push_back({key, transcript});
  // A chat's own page is written now, while its transcript is loaded; the
  // lists of the library wait for the commit.
  ChatRecord record =
      keptChat(log, counts, std::move(key), std::move(transcript), ChatPage::Write, Durability::ByNextSync);
  libraryPagesDue_ = libraryPagesDue_ || record.page;
  if (historyFailed_)
    return;
  if (!history_)
    history_ = ChatHistory::Additions::begin();
  historyFailed_ = !history_ || !history_->add(std::move(record));
}

ArchiveBatch::Added ArchiveBatch::add(const ICLPChatLog &log, bool links, bool images,
                                      std::optional<std::string> historyKey, fs::path transcript) {
  Added added;
  if (links)
    added.links = addLinks(log);
  if (images)
    added.pictures = addImages(log);
  const ICLPLogGenerator::ChatCounts counts = addStatistics(log);
  if (historyKey)
    addHistory(log, counts, std::move(*historyKey), std::move(transcript));
  return added;
}

bool ArchiveBatch::commit() {
  // The chats' pages reach the disk before the rows that name them.
  DeferredSyncs::flushAll();
  // The history first. A batch it cannot take now is noted for a later run
  // (once it has failed, the rest of the run's chats are too, without
  // waiting for it again); only a batch that cannot even be noted changes
  // no archive, and is done again from the journal.
  if (history_) {
    historyFailed_ = !history_->commit().has_value() || historyFailed_;
    history_.reset();
  }
  if (historyFailed_ && !PendingHistory::keep(historyChats_))
    return false;
  historyChats_.clear();
  // The stored pictures reach the disk before the archives that name them.
  if (imagePagesDue_)
    syncFileSystemOf(ICLPLogGenerator::parlovaFolder());
  if (linksChanged_ && !writeArchiveXml(linkArchivePath(), *links_))
    return false;
  if (imagesChanged_ && !writeArchiveXml(imageArchivePath(), *images_))
    return false;
  if (statisticsChanged_ && totals_.contents &&
      !writeArchive(ICLPLogGenerator::parlovaFolder() / "chatgeist.plist", *totals_.contents))
    return false;
  static const PlistValue::Array kNothing;
  // Every page can be made again from the archives: one flush for them all.
  const DeferredSyncs::Scope pages;
  if (linkPagesDue_)
    ICLPLogGenerator::RebuildLinkPages(*links_->get<PlistValue::Array>());
  if (imagePagesDue_)
    ICLPLogGenerator::RebuildImagePages(images_ ? *images_->get<PlistValue::Array>() : kNothing);
  if (lastTotals_)
    ICLPLogGenerator::RebuildStatisticsPage(*lastTotals_);
  if (libraryPagesDue_)
    ChatLibrary::rebuildIndexPages();
  libraryPagesDue_ = false;
  linksChanged_ = imagesChanged_ = statisticsChanged_ = false;
  linkPagesDue_ = imagePagesDue_ = false;
  lastTotals_.reset();
  return true;
}

} // namespace parlova
