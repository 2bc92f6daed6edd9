#include "driver/InterruptedRun.h"

#include <unordered_set>

#include "driver/ArchiveFolder.h"
#include "driver/TranscriptJournal.h"
#include "generator/ArchiveBatch.h"
#include "generator/ICLPLogGenerator.h"
#include "history/ChatHistory.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

bool FinishInterruptedArchiving() {
  TranscriptJournal journal(ICLPLogGenerator::parlovaFolder());
  auto recovery = journal.recover();
  switch (recovery.kind) {
  case TranscriptJournal::Recovery::Kind::Nothing:
    return true;
  case TranscriptJournal::Recovery::Kind::BatchDue: {
    // Mailed, but still where they were: moved before the batch is added,
    // so that none of them is archived while the walk could take it again.
    // Until they are, no run goes on: the journal keeps the batch.
    std::unordered_set<std::string> taken;
    for (auto &move : recovery.moved) {
      if (!move.due)
        continue;
      logFormat("A catch-up ended before moving %@; moving it now.", move.transcript.string());
      if (fileExistsAtPath(move.target) || taken.contains(move.target.string()))
        move.target = ArchiveTargetIn(move.target.parent_path(), move.transcript, taken);
      if (!MoveToArchiveFolder(move.transcript, move.target, FailureCountReset::WhenNotZero))
        return false;
      taken.insert(move.target.string());
    }
    ArchiveBatch archives;
    for (const auto &move : recovery.moved) {
      // What was archived is the file as it is now, where it was moved.
      const auto contents = readFileContents(move.target);
      const auto log = contents ? ICLPChatLog::initWithFileContents(move.target, *contents) : std::nullopt;
      if (!log)
        continue;
      archives.add(*log, move.links, move.images,
                   ChatHistory::wanted() ? std::optional(TranscriptJournal::identityOf(*contents).key()) : std::nullopt,
                   move.target);
    }
    if (!archives.commit()) {
      logLine("A catch-up ended half-way through a batch, and its archives cannot be written yet; the next run "
              "tries again.");
      return false;
    }
    journal.clear();
    logFormat("A catch-up ended half-way through a batch; the archives now hold the %@ transcripts it had moved.",
              std::to_string(recovery.moved.size()));
    return true;
  }
  case TranscriptJournal::Recovery::Kind::RolledBack:
    logFormat("A run ended while archiving %@; the archives are back as they were before it.",
              recovery.transcript.string());
    return true;
  case TranscriptJournal::Recovery::Kind::MoveDue: {
    if (recovery.moveFailedBefore)
      logFormat("Moving %@ again: it is archived, only its move failed.", recovery.transcript.string());
    else
      logFormat("A run ended before moving %@; moving it now.", recovery.transcript.string());
    // The target chosen then may have been taken since.
    const fs::path target = fileExistsAtPath(recovery.target)
                                ? ArchiveTargetIn(recovery.target.parent_path(), recovery.transcript)
                                : recovery.target;
    // Until it is moved, no other transcript is begun: the journal keeps one.
    if (!MoveToArchiveFolder(recovery.transcript, target))
      return false;
    journal.clear();
    return true;
  }
  }
  return true;
}

} // namespace parlova
