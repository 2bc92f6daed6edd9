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
#include "generator/ChatHistory.h"
#include "generator/ICLPLogGenerator.h"

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
  void addStatistics(const ICLPChatLog &log);
  // The chat for the history, under `key` (the transcript's size and
  // digest), kept at `transcript`; written at commit().
  void addHistory(const ICLPChatLog &log, std::string key, std::filesystem::path transcript);

  // Writes the history and every archive changed since the last commit,
  // then the pages of every stage that ran. False when the history or an
  // archive could not be written (that is logged); the pages are then left
  // alone.
  bool commit();

private:
  void asStored(PlistValue &entry);

  std::optional<PlistValue> links_;
  std::optional<PlistValue> images_;
  ICLPLogGenerator::TotalsFile totals_;
  std::optional<StatisticsTotals> lastTotals_;
  std::optional<ICLPLogGenerator::WordLists> wordLists_;
  std::vector<ChatRecord> history_;
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
