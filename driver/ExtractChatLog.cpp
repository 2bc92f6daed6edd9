#include "driver/ExtractChatLog.h"

#include "context/ErrorReport.h"
#include "context/MailSettings.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/ArchiveFolder.h"
#include "driver/TranscriptJournal.h"
#include "driver/TranscriptMailContent.h"
#include "history/ChatHistory.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

Extraction ExtractChatLog(const std::string &path, ICLPChatLog *log, const std::string &contentKey,
                          TranscriptArchives &archives, Delivery &delivery,
                          std::optional<MailboxMessage> composed) {
  using Outcome = Extraction::Outcome;
  Preferences &settings = appSettings();
  Extraction extraction;

  const MailSettings mail = MailSettings::read(settings);
  TranscriptArchives::Stages stages;
  stages.links = settings.boolValue("handleURLs");
  stages.images = settings.boolValue("handleImages");

  logRoutine("extracting %@", path);

  if (log == nullptr) {
    logFormat("Error parsing %@. This file is likely not a chat log and has been skipped.", path);
    return extraction;
  }

  if (!log->isLikelyEndOfChat()) {
    if (verbose)
      logLine("*****FINISH*****This log is probably an incomplete log that will be finished later- don't send and "
              "don't record it as the last log.");
    extraction.outcome = Outcome::LeftOpen;
    return extraction;
  }

  // Nothing is sent for a transcript whose archiving could not be finished:
  // one that cannot leave its folder (a read-only disk from an old Mac)
  // would be mailed and copied again by every run.
  if (auto why = WhyTranscriptCannotLeave(path)) {
    ReportTranscriptCannotLeave(path, *why);
    extraction.outcome = Outcome::CannotLeave;
    extraction.why = std::move(*why);
    return extraction;
  }
  // Its name there counts the moves a catch-up has decided but not made.
  const fs::path target = archives.targetFor(path);
  if (const auto why = WhyArchivingCannotFinish(target)) {
    ReportArchivingCannotFinish(*why);
    extraction.outcome = Outcome::CannotFinish;
    extraction.why = "cannot move transcripts: " + *why;
    return extraction;
  }
  // Kept from before the mail, so that a run that cannot write it sends
  // nothing; whatever ends the run from then on, the next one finds the
  // archives either without this transcript or complete with it.
  if (auto why = archives.begin(path)) {
    extraction.outcome = Outcome::CannotFinish;
    extraction.why = std::move(*why);
    return extraction;
  }

  logRoutine("preparing email send %@", path);

  if (mail.sendEmails) {
    // Where the mail goes; no guess at another place.
    TranscriptMailContent content(path, *log, contentKey);
    content.offerComposed(std::move(composed));
    const DeliveryResult result = mail.delivery
                                      ? delivery.deliver(content)
                                      : waitForSetting("emailDelivery must be " + deliveryNamesText(" or "));
    if (result.code != 0)
      reportErrorAndLog(result.code, result.reason);
    if (result.kind == DeliveryResult::Kind::Wait) {
      logLine("*****FINISH***** An error occurred while sending email. This log has been skipped.");
      archives.abandon();
      extraction.outcome = Outcome::MailWaits;
      return extraction;
    }
    extraction.mailed = result.delivered();
  }

  if (settings.intValue("errorStatus") != 0) {
    logLine("an error has occurred while emailing?");
    archives.abandon();
    extraction.outcome = Outcome::ErrorStands;
    return extraction;
  }

  if (ChatHistory::wanted())
    stages.historyKey = contentKey;
  auto added = archives.archive(*log, path, target, stages);
  if (auto *why = std::get_if<std::string>(&added)) {
    extraction.outcome = Outcome::NotArchived;
    extraction.why = std::move(*why);
    return extraction;
  }
  extraction.added = std::get<TranscriptArchives::Added>(added);
  extraction.target = target;
  extraction.outcome = archives.move(path, target) ? Outcome::Moved : Outcome::NotMoved;
  return extraction;
}

} // namespace parlova
