#include "driver/CatchUp.h"

#include <cerrno>
#include <csignal>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/CatchUpProgress.h"
#include "driver/ExtractChatLog.h"
#include "driver/RunDriver.h"
#include "driver/Setup.h"
#include "driver/TranscriptJournal.h"
#include "generator/ArchiveBatch.h"
#include "generator/ChatHistory.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/PageText.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/Home.h"
#include "platform/Log.h"
#include "platform/Pause.h"
#include "platform/StopSignals.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

struct Tally {
  size_t leftOpen = 0;
  size_t notLoaded = 0;
  size_t mailed = 0;
  // What a batch adds counts once the batch is committed.
  struct Archived {
    size_t transcripts = 0;
    size_t links = 0;
    size_t pictures = 0;
  };
  Archived committed;
  Archived pending;

  void commit() {
    committed.transcripts += pending.transcripts;
    committed.links += pending.links;
    committed.pictures += pending.pictures;
    pending = {};
  }
};

class Batch {
public:
  Batch() : journal_(ICLPLogGenerator::parlovaFolder()) {}

  // Before the first archive of the batch changes. False (logged) when the
  // journal cannot be written: nothing may change then.
  bool open() {
    if (open_)
      return true;
    if (!journal_.beginBatch()) {
      logFormat("Could not write %@: %@", journal_.journalFile().string(), std::strerror(errno));
      journal_.clear();
      return false;
    }
    open_ = true;
    opened_ = Clock::now();
    return true;
  }

  ArchiveBatch &archives() { return archives_; }

  bool noteMove(const TranscriptJournal::Recovery::BatchMove &move) {
    if (journal_.noteBatchMove(move)) {
      ++size_;
      return true;
    }
    logFormat("Could not write %@: %@", journal_.movesFile().string(), std::strerror(errno));
    return false;
  }

  bool due(const RunOptions &options) const {
    return open_ && (size_ >= options.commitEvery ||
                     Clock::now() - opened_ >= std::chrono::duration<double>(RunOptions::kCommitSeconds));
  }

  // Writes the archives and pages and forgets the batch. On failure the
  // journal stays, and the next run finishes the batch from it.
  bool commit() {
    if (!open_)
      return true;
    if (!archives_.commit()) {
      logLine("The catch-up could not write its archives; the next run adds this batch's transcripts to them.");
      return false;
    }
    // The batch's moves reach the disk before the journal that could redo
    // them is gone: a move undone by a power cut after that would bring a
    // counted transcript back.
    syncFileSystemOf(ArchiveFolder());
    syncFileSystemOf(homeDirectory() / "Documents/iChats");
    journal_.clear();
    open_ = false;
    size_ = 0;
    return true;
  }

private:
  TranscriptJournal journal_;
  ArchiveBatch archives_;
  bool open_ = false;
  size_t size_ = 0;
  Clock::time_point opened_;
};

} // namespace

int catchUp(const RunOptions &options) {
  const auto started = startRun();
  if (!started)
    return 0;
  StopSignals::install();
  const auto start = Clock::now();

  const fs::path chatFolder = homeDirectory() / "Documents/iChats";
  shouldQuit = true;
  // The walk is taken whole first: moving transcripts out of the folder
  // while it is read could make the file system skip or repeat entries.
  std::vector<std::string> entries;
  size_t candidates = 0;
  for (DirectoryEnumerator walk(chatFolder); const auto entry = walk.nextObject();) {
    entries.push_back(*entry);
    candidates += ICLPChatLog::hasTranscriptExtension(*entry) ? 1 : 0;
  }

  readDebugMode();
  noteMissingTemplates();

  Tally tally;
  Batch batch;
  const bool keepHistory = ChatHistory::wanted();
  CatchUpProgress progress(candidates, options.quiet);
  size_t seen = 0;
  std::string stopped;
  for (const std::string &entry : entries) {
    if (const int signal = StopSignals::requested()) {
      stopped = signal == SIGINT ? "interrupted" : "asked to stop";
      break;
    }
    const fs::path path = chatFolder / entry;
    const bool candidate = ICLPChatLog::hasTranscriptExtension(path);
    if (candidate)
      progress.show(seen, entry);

    judgeEntry(entry, std::chrono::seconds(1));
    if (verbose)
      logFormat("Processing %@", entry);
    // Read here, so that the history knows the chat by the very bytes
    // that were decoded.
    const auto contents = candidate ? readFileContents(path) : std::nullopt;
    auto log = candidate ? ICLPChatLog::initWithFileContents(path, contents.value_or(std::vector<uint8_t>{}))
                         : std::nullopt;
    if (options.pause)
      pauseFor(*options.pause);
    seen += candidate ? 1 : 0;
    if (!log) {
      tally.notLoaded += candidate && !fs::is_directory(path) ? 1 : 0;
      continue;
    }

    using Outcome = ChatLogPreparation::Outcome;
    const auto beforeMail = [&] {
      if (const auto why = WhyArchivingCannotFinish(path)) {
        ReportArchivingCannotFinish(*why);
        stopped = "cannot move transcripts: " + *why;
        return false;
      }
      if (!batch.open()) {
        stopped = "the journal could not be written";
        return false;
      }
      return true;
    };
    const ChatLogPreparation preparation = PrepareChatLog(path.string(), &*log, beforeMail);
    if (preparation.outcome == Outcome::CannotFinish)
      break;
    if (preparation.outcome == Outcome::LeftOpen) {
      // A single run would end here and the next one stop at the same
      // chat; a catch-up leaves it for later and goes on.
      ++tally.leftOpen;
      continue;
    }
    if (preparation.outcome == Outcome::ErrorStands) {
      stopped = "an email error stands (errorStatus)";
      break;
    }
    if (preparation.outcome == Outcome::MailFailed) {
      if (!isLikelyComplete)
        continue;
      stopped = "the mail could not be delivered";
      break;
    }
    tally.mailed += preparation.mailed ? 1 : 0;

    // Noted before anything of it reaches the archives: a batch cut short
    // is finished from these notes.
    const fs::path target = ArchiveTargetFor(path);
    if (!batch.noteMove({path, target, preparation.handleURLs, preparation.handleImages})) {
      stopped = "the journal could not be written";
      break;
    }
    const auto added = batch.archives().add(
        *log, preparation.handleURLs, preparation.handleImages,
        keepHistory && contents ? std::optional(TranscriptJournal::identityOf(*contents).key()) : std::nullopt, target);
    tally.pending.links += added.links;
    tally.pending.pictures += added.pictures;
    const bool moved = MoveToArchiveFolder(path, target, FailureCountReset::WhenNotZero, Durability::ByNextSync);
    ++tally.pending.transcripts;
    if (!moved) {
      // Archived but not moved: once the batch is written, the journal
      // keeps this one transcript for later runs to move, and only move.
      // (The move's own line says why; writing the settings since may have
      // changed errno.)
      if (batch.commit()) {
        tally.commit();
        TranscriptJournal journal(ICLPLogGenerator::parlovaFolder());
        if (!journal.begin(path) || !journal.markMoveFailed(target))
          journal.clear();
      } else {
        tally.pending = {};
      }
      stopped = "could not move " + entry + ", as the line above says";
      break;
    }

    if (batch.due(options)) {
      if (!batch.commit()) {
        tally.pending = {};
        stopped = "an archive could not be written";
        break;
      }
      tally.commit();
    }
  }
  progress.clear();
  if (batch.commit()) {
    tally.commit();
  } else {
    tally.pending = {};
    stopped = "an archive could not be written";
  }

  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  logLine(std::string(stopped.empty() ? "Catch-up finished: " : "Catch-up stopped (" + stopped + "): ") +
          thousands(tally.committed.transcripts) + " processed, " + thousands(tally.leftOpen) + " left open, " +
          thousands(tally.notLoaded) + " did not load, " + thousands(tally.mailed) + " mailed, " +
          thousands(tally.committed.links) + " links and " + thousands(tally.committed.pictures) + " pictures added, " +
          CatchUpProgress::clockText(elapsed) + " elapsed.");
  return 0;
}

} // namespace parlova
