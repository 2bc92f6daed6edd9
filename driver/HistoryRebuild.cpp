#include "driver/HistoryRebuild.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <unordered_set>
#include <string>
#include <vector>

#include "driver/ArchiveFolder.h"
#include "driver/CatchUpProgress.h"
#include "driver/RunStart.h"
#include "driver/TranscriptJournal.h"
#include "foundation/TerminalText.h"
#include "generator/ChatLibrary.h"
#include "generator/ChatRecords.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/PageText.h"
#include "history/ChatHistory.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/StopSignals.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

// The history is written this many chats at a time: one transaction each.
constexpr size_t kRecordsPerWrite = 1000;

// What a rebuild would add, on standard output; nothing is written.
int sayWhatRebuildWouldAdd() {
  std::unordered_set<std::string> known;
  int64_t reindex = 0;
  if (auto history = ChatHistory::openExisting()) {
    const auto keys = history->keys();
    if (!keys)
      return 1;
    known.insert(keys->begin(), keys->end());
    reindex = history->waitingForReindex().value_or(0);
  }
  size_t transcripts = 0, missing = 0;
  for (const std::string &entry : ProcessedTranscripts()) {
    const fs::path path = ArchiveFolder() / entry;
    const auto contents = readFileContents(path);
    ++transcripts;
    if (contents && known.contains(TranscriptJournal::identityOf(*contents).key()))
      continue;
    if (!contents || !ICLPChatLog::initWithFileContents(path, *contents)) {
      std::printf("leave    %s: does not load\n", terminalLine(entry).c_str());
      continue;
    }
    std::printf("add      %s\n", terminalLine(entry).c_str());
    ++missing;
  }
  std::printf("%s transcripts, %s to add to %s\n", thousands(transcripts).c_str(), thousands(missing).c_str(),
              ChatHistory::file().c_str());
  if (reindex > 0)
    std::printf("%s chats there already to index anew (their sent files' names)\n",
                thousands(static_cast<uint64_t>(reindex)).c_str());
  return 0;
}

} // namespace

int rebuildHistory(const RunOptions &options) {
  if (options.dryRun)
    return sayWhatRebuildWouldAdd();
  // No run may move transcripts out from under the walk, nor count them.
  const auto started = startRun();
  if (!started)
    return 0;
  StopSignals::install();
  const auto start = Clock::now();
  const auto history = ChatHistory::open();
  if (!history)
    return 1;
  if (!history->writable()) {
    logFormat("History not rebuilt: %@ was written by a newer version of Parlova, which rebuilds it.",
              ChatHistory::file().string());
    return 1;
  }

  const std::vector<std::string> entries = ProcessedTranscripts();

  const ICLPLogGenerator::WordLists lists = ICLPLogGenerator::ReadWordLists();
  const bool library = ChatLibrary::wanted();
  CatchUpProgress progress(entries.size(), options.quiet);
  std::vector<ChatRecord> records;
  size_t read = 0, added = 0, notLoaded = 0, reindexed = 0;
  bool failed = false;
  std::string stopped;
  const auto write = [&] {
    if (records.empty())
      return;
    if (const auto count = ChatHistory::store(records, &reindexed))
      added += *count;
    else
      failed = true;
    records.clear();
  };
  for (const std::string &entry : entries) {
    if (const int signal = StopSignals::requested()) {
      stopped = signal == SIGINT ? "interrupted" : "asked to stop";
      break;
    }
    progress.show(read, entry);
    ++read;
    const fs::path path = ArchiveFolder() / entry;
    const auto contents = readFileContents(path);
    const auto log = contents ? ICLPChatLog::initWithFileContents(path, *contents) : std::nullopt;
    if (!log) {
      ++notLoaded;
      continue;
    }
    // The pages missing from the library.
    ChatRecord record = keptChat(*log, ICLPLogGenerator::CountChat(*log, lists),
                                 TranscriptJournal::identityOf(*contents).key(), path, ChatPage::WriteWhenMissing);
    records.push_back(std::move(record));
    if (records.size() >= kRecordsPerWrite)
      write();
    if (failed) {
      stopped = "the history could not be written";
      break;
    }
  }
  write();
  progress.clear();
  if (failed && stopped.empty())
    stopped = "the history could not be written";
  if (const auto totals = ICLPLogGenerator::StoredTotals())
    ICLPLogGenerator::RebuildStatisticsPage(*totals);
  if (library)
    ChatLibrary::rebuildIndexPages();

  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  logLine(std::string(stopped.empty() ? "History rebuilt: " : "History rebuild stopped (" + stopped + "): ") +
          thousands(read) + " transcripts read, " + thousands(added) + " added, " +
          thousands(read - notLoaded - added) + " there already" +
          (reindexed ? " (" + thousands(reindexed) + " of them indexed anew)" : std::string()) + ", " +
          thousands(notLoaded) + " did not load, " +
          CatchUpProgress::clockText(elapsed) + " elapsed.");
  if (!ChatHistory::wanted())
    logLine("New chats go into the history once keepHistory is on: parlova-defaults write com.hollowmere.parlova "
            "keepHistory -bool YES");
  return stopped.empty() ? 0 : 1;
}

} // namespace parlova
