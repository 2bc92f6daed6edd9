#include "driver/MailProcessed.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "context/MailSettings.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/ArchiveFolder.h"
#include "driver/CatchUpProgress.h"
#include "driver/RunPlan.h"
#include "driver/RunStart.h"
#include "driver/TranscriptJournal.h"
#include "driver/TranscriptMailContent.h"
#include "generator/PageText.h"
#include "mail/ChosenDelivery.h"
#include "model/ICLPChatLog.h"
#include "platform/DeferredSyncs.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/StopSignals.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

bool withinDates(const RunOptions &options, const TranscriptMailContent &content) {
  if (!options.since && !options.until)
    return true;
  const auto start = content.chatStart();
  if (!start)
    return false;
  const Date begun = Date::fromUnixTime(*start);
  return (!options.since || begun >= *options.since) && (!options.until || begun < *options.until);
}

std::vector<std::string> processedTranscripts() {
  std::vector<std::string> entries = ProcessedTranscripts();
  std::sort(entries.begin(), entries.end());
  return entries;
}

} // namespace

int mailProcessed(const RunOptions &options) {
  const RunPlan plan = RunPlan::ofSettings(RunPlan::Password::Tried);
  if (options.dryRun) {
    std::fputs(plan.text().c_str(), stdout);
    size_t toMail = 0;
    for (const std::string &entry : processedTranscripts()) {
      const fs::path path = ArchiveFolder() / entry;
      auto log = ICLPChatLog::initWithFilePath(path);
      if (log && withinDates(options, TranscriptMailContent(path.string(), *log, std::nullopt)))
        ++toMail;
    }
    std::printf("%s to mail, unless the mailbox has them already\n", thousands(toMail).c_str());
    return plan.mailOn() && plan.problems().empty() ? 0 : 1;
  }

  const auto started = startRun();
  if (!started)
    return 1;
  if (!plan.mailOn()) {
    logFormat("Mail is off, so nothing is mailed; turn it on first (parlova-defaults write %@ sendEmails -bool YES), "
              "with the settings of its delivery (parlova --dry-run --mail-processed shows what is missing).",
              std::string(kSettingsDomain));
    return 1;
  }
  if (!plan.allowsRun())
    return 1;
  StopSignals::install();
  const auto start = Clock::now();
  showRoutineLines(options.verbose || !isatty(STDERR_FILENO));
  shouldQuit = true;

  const MailSettings mail = MailSettings::read(appSettings());
  const auto delivery = chosenDelivery(mail, Resending::OncePerAddress, MailSessions::Kept);
  const std::vector<std::string> entries = processedTranscripts();
  CatchUpProgress progress(entries.size(), options.quiet);
  size_t seen = 0, mailed = 0, there = 0, notLoaded = 0, outside = 0;
  std::string stopped;
  for (const std::string &entry : entries) {
    if (const int signal = StopSignals::requested()) {
      stopped = signal == SIGINT ? "interrupted" : "asked to stop";
      break;
    }
    progress.show(seen++, entry);
    const fs::path path = ArchiveFolder() / entry;
    std::optional<ICLPChatLog> log;
    std::string contentKey;
    if (const auto contents = readFileContents(path)) {
      log = ICLPChatLog::initWithFileContents(path, *contents);
      contentKey = TranscriptJournal::identityOf(*contents).key();
    }
    if (!log) {
      ++notLoaded;
      continue;
    }
    TranscriptMailContent content(path.string(), *log, contentKey);
    if (!withinDates(options, content)) {
      ++outside;
      continue;
    }
    logRoutine("mailing %@", path.string());
    const DeliveryResult result = delivery->deliver(content);
    if (result.kind == DeliveryResult::Kind::Sent) {
      ++mailed;
    } else if (result.kind == DeliveryResult::Kind::AlreadyThere) {
      ++there;
    } else {
      // A refusal would most likely meet every chat after it alike.
      stopped = result.kind == DeliveryResult::Kind::Wait ? "the mail could not be delivered" : "the mail was refused";
      break;
    }
  }
  progress.clear();
  if (!DeferredSyncs::flushAll())
    logFormat("Could not flush the stored mail to the disk: %@", std::string(std::strerror(errno)));
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  logLine(std::string(stopped.empty() ? "Mailing finished: " : "Mailing stopped (" + stopped + "): ") +
          thousands(mailed) + " mailed, " + thousands(there) + " delivered before, " + thousands(notLoaded) +
          " did not load, " + (outside ? thousands(outside) + " outside the dates, " : std::string()) +
          CatchUpProgress::clockText(elapsed) + " elapsed.");
  return stopped.empty() ? 0 : 1;
}

} // namespace parlova
