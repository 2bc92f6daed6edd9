#include "driver/CatchUp.h"

#include <csignal>
#include <cstdio>
#include <unistd.h>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "context/MailSettings.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/ArchivesInBatches.h"
#include "driver/CatchUpProgress.h"
#include "driver/DayFolders.h"
#include "driver/EntryJudgement.h"
#include "driver/ExtractChatLog.h"
#include "driver/RunPlan.h"
#include "driver/RunStart.h"
#include "driver/Setup.h"
#include "driver/TranscriptPrefetch.h"
#include "generator/ICLPLogGenerator.h"
#include "mail/ChosenDelivery.h"
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
  size_t cannotLeave = 0;
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

// On a terminal, the plan and a question before anything moves: a first
// catch-up with mail off would archive a decade without mailing any of it.
bool agreed(const RunPlan &plan, size_t transcripts) {
  std::fprintf(stderr, "%s\nCarry %s transcripts through with mail %s? [y/N] ", plan.text().c_str(),
               thousands(transcripts).c_str(), plan.mailOn() ? "on" : "off");
  std::fflush(stderr);
  char answer[64] = {};
  if (!std::fgets(answer, sizeof answer, stdin))
    return false;
  return answer[0] == 'y' || answer[0] == 'Y';
}

} // namespace

int catchUp(const RunOptions &options) {
  const auto started = startRun();
  if (!started)
    return 1;
  const fs::path chatFolder = homeDirectory() / "Documents/iChats";
  if (std::error_code error; !fs::is_directory(chatFolder, error)) {
    logFormat("There is no transcript folder %@ (parlova --setup makes it); there is nothing to catch up.",
              chatFolder.string());
    return 1;
  }
  const RunPlan plan = RunPlan::ofSettings(RunPlan::Password::Tried);
  if (!plan.allowsRun())
    return 1;

  shouldQuit = true;
  // The walk is taken whole first: moving transcripts out of the folder
  // while it is read could make the file system skip or repeat entries.
  std::vector<std::string> entries;
  size_t candidates = 0;
  for (DirectoryEnumerator walk(chatFolder); const auto entry = walk.nextObject();) {
    entries.push_back(*entry);
    candidates += ICLPChatLog::hasTranscriptExtension(*entry) ? 1 : 0;
  }

  const bool onTerminal = isatty(STDERR_FILENO);
  if (onTerminal && isatty(STDIN_FILENO) && !options.yes && !agreed(plan, candidates)) {
    logLine("Catch-up not begun; nothing was done.");
    return 1;
  }
  StopSignals::install();
  const auto start = Clock::now();
  showRoutineLines(options.verbose || !onTerminal);
  readDebugMode();
  noteMissingTemplates();

  Tally tally;
  ArchivesInBatches batch;
  // One session with the mail server for the whole backlog.
  const MailSettings deliverySettings = MailSettings::read(appSettings());
  const auto delivery = chosenDelivery(deliverySettings, Resending::Allowed, MailSessions::Kept);
  // A mailbox's message can be made ahead unless its subject counts; the
  // settings are read here, on this thread, each time.
  const auto mailAhead = [&] {
    Preferences &settings = appSettings();
    TranscriptPrefetch::MailAhead ahead;
    ahead.compose = deliverySettings.delivery != DeliveryKind::Smtp && deliverySettings.delivery.has_value() &&
                    MailSettings::read(settings).sendEmails && !settings.boolValue("forceUniqueSubjects");
    if (ahead.compose) {
      ahead.escapeHTML = settings.boolValue("escapeHTML");
      ahead.to = deliverySettings.to;
      ahead.from = deliverySettings.from;
    }
    return ahead;
  };
  TranscriptPrefetch prefetch;
  // The transcripts of the walk after `from`, as many as may be held beside
  // the current one; one too large to be held is decoded when it comes.
  size_t askedUpTo = 0;
  const auto askAhead = [&](size_t from) {
    askedUpTo = std::max(askedUpTo, from);
    for (; askedUpTo < entries.size(); ++askedUpTo) {
      const fs::path path = chatFolder / entries[askedUpTo];
      if (!ICLPChatLog::hasTranscriptExtension(path))
        continue;
      std::error_code error;
      if (!fs::is_regular_file(path, error))
        continue;
      const uintmax_t bytes = fs::file_size(path, error);
      if (error || bytes > TranscriptPrefetch::kMostBytesAhead)
        continue;
      if (!prefetch.hasRoomFor(bytes))
        return;
      prefetch.ask(path, mailAhead(), bytes);
    }
  };
  // Why the catch-up stops when the batch cannot be committed; the next run
  // finishes it.
  const auto commitBatch = [&]() -> std::string {
    if (batch.commit()) {
      tally.commit();
      return {};
    }
    tally.pending = {};
    if (const auto &unmoved = batch.unmoved())
      return "could not move " + unmoved->filename().string() + ", as the lines above say";
    return "an archive could not be written";
  };
  CatchUpProgress progress(candidates, options.quiet);
  size_t seen = 0;
  std::string stopped;
  for (size_t index = 0; index < entries.size(); ++index) {
    const std::string &entry = entries[index];
    if (const int signal = StopSignals::requested()) {
      stopped = signal == SIGINT ? "interrupted" : "asked to stop";
      break;
    }
    const fs::path path = chatFolder / entry;
    if (removeEmptyDayFolder(path))
      continue;
    const bool candidate = ICLPChatLog::hasTranscriptExtension(path);
    if (candidate)
      progress.show(seen, entry);

    judgeEntry(entry, std::chrono::seconds(1));
    if (verbose)
      logFormat("Processing %@", entry);
    // Decoded from the very bytes the history knows the chat by.
    TranscriptPrefetch::Prepared prepared = candidate ? prefetch.take(path) : TranscriptPrefetch::Prepared{};
    if (candidate)
      askAhead(index + 1);
    const bool readable = prepared.readable;
    auto &loaded = prepared.loaded;
    const std::string &contentKey = prepared.contentKey;
    // Made with settings that have changed since: made again when sent.
    if (prepared.mail && !(prepared.madeWith == mailAhead()))
      prepared.mail.reset();
    if (options.pause)
      pauseFor(*options.pause);
    seen += candidate ? 1 : 0;
    auto *log = std::get_if<ICLPChatLog>(&loaded);
    if (!log) {
      if (candidate && !fs::is_directory(path)) {
        ++tally.notLoaded;
        logFormat("%@ does not load and stays where it is: %@.", entry,
                  readable ? std::get<std::string>(loaded) : std::string("cannot read the file"));
      }
      continue;
    }

    using Outcome = Extraction::Outcome;
    const Extraction extraction =
        ExtractChatLog(path.string(), log, contentKey, batch, *delivery, std::move(prepared.mail));
    switch (extraction.outcome) {
    case Outcome::NotLoaded:
      continue;
    case Outcome::CannotLeave:
      ++tally.cannotLeave;
      continue;
    case Outcome::LeftOpen:
      // A single run would end here and the next one stop at the same
      // chat; a catch-up leaves it for later and goes on.
      ++tally.leftOpen;
      continue;
    case Outcome::MailWaits:
      if (!isLikelyComplete)
        continue;
      stopped = "the mail could not be delivered";
      break;
    case Outcome::ErrorStands:
      stopped = "an email error stands (errorStatus)";
      break;
    case Outcome::CannotFinish:
      stopped = extraction.why;
      break;
    case Outcome::NotArchived:
      tally.mailed += extraction.mailed ? 1 : 0;
      stopped = extraction.why;
      break;
    case Outcome::NotMoved:
    case Outcome::Moved:
      tally.mailed += extraction.mailed ? 1 : 0;
      tally.pending.links += extraction.added.links;
      tally.pending.pictures += extraction.added.pictures;
      ++tally.pending.transcripts;
      break;
    }
    // A failed move leaves the batch to the next run: the commit below
    // says so.
    if (!stopped.empty() || extraction.outcome == Outcome::NotMoved)
      break;

    if (batch.due(options.commitEvery, RunOptions::kCommitSeconds)) {
      stopped = commitBatch();
      if (!stopped.empty())
        break;
    }
  }
  progress.clear();
  if (std::string why = commitBatch(); !why.empty())
    stopped = std::move(why);

  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  logLine(std::string(stopped.empty() ? "Catch-up finished: " : "Catch-up stopped (" + stopped + "): ") +
          thousands(tally.committed.transcripts) + " processed, " + thousands(tally.leftOpen) + " left open, " +
          thousands(tally.notLoaded) + " did not load, " +
          (tally.cannotLeave ? thousands(tally.cannotLeave) + " cannot leave their folder, " : std::string()) +
          thousands(tally.mailed) + " mailed, " +
          thousands(tally.committed.links) + " links and " + thousands(tally.committed.pictures) + " pictures added, " +
          CatchUpProgress::clockText(elapsed) + " elapsed.");
  return stopped.empty() ? 0 : 1;
}

} // namespace parlova
