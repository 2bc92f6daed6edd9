// The link, image and statistics archives held in memory while a backlog of
// transcripts is carried through, so that each is read once and written,
// with its pages, only when the batch is committed instead of after every
// transcript.
//
// Every transcript changes them exactly as the single-run stages change the
// files: each new entry is passed through the property-list format on its
// way in, as it would be by the file, and the statistics are kept as the
// file's very bytes.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "foundation/PropertyListValue.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/PendingHistory.h"
#include "history/ChatHistory.h"

namespace parlova {

class ICLPChatLog;

class ArchiveBatch {
public:
  // Reads the archives of ~/Library/Parlova as they are now.
  ArchiveBatch();

  // The stages, as GenerateLinkFiles, GenerateImageFiles and
  // UpdateStatistics; the pages wait for commit(). The first two answer how
  // many links or files the transcript had.
  size_t addLinks(const ICLPChatLog &log);
  size_t addImages(const ICLPChatLog &log);
  // Answers what the transcript added.
  ICLPLogGenerator::ChatCounts addStatistics(const ICLPChatLog &log);
  // The chat for the history, under `key` (the transcript's size and
  // digest), kept at `transcript`; kept at commit().
  void addHistory(const ICLPChatLog &log, const ICLPLogGenerator::ChatCounts &counts, std::string key,
                  std::filesystem::path transcript);

  // One transcript through the stages it is due: links, pictures, the
  // statistics always and the history when it has a key.
  struct Added {
    size_t links = 0;
    size_t pictures = 0;
  };
  Added add(const ICLPChatLog &log, bool links, bool images, std::optional<std::string> historyKey,
            std::filesystem::path transcript);

  // Keeps the history and writes every archive changed since the last
  // commit, then the pages of every stage that ran. Chats the history
  // cannot take now are noted for a later run (PendingHistory), and so are
  // those of every later batch. False when an archive, or the note, could
  // not be written (that is logged); the pages are then left alone, and the
  // batch is to be done again.
  bool commit();

private:
  void asStored(PlistValue &entry);

  std::optional<PlistValue> links_;
  std::optional<PlistValue> images_;
  ICLPLogGenerator::TotalsFile totals_;
  std::optional<StatisticsTotals> lastTotals_;
  std::optional<ICLPLogGenerator::WordLists> wordLists_;
  // The history's rows of the batch, in a transaction until commit().
  std::optional<ChatHistory::Additions> history_;
  bool historyFailed_ = false;
  std::vector<PendingHistory::Chat> historyChats_; // noted for later should the history fail

  bool linksSorted_ = false;
  bool imagesSorted_ = false;
  bool linksChanged_ = false;
  bool imagesChanged_ = false;
  bool statisticsChanged_ = false;
  bool linkPagesDue_ = false;
  bool imagePagesDue_ = false;
  bool libraryPagesDue_ = false;
};

} // namespace parlova
