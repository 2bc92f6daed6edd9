#include "driver/SingleRun.h"

#include <filesystem>
#include <vector>

#include "context/MailSettings.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/ArchivesNow.h"
#include "driver/DayFolders.h"
#include "driver/EntryJudgement.h"
#include "driver/ExtractChatLog.h"
#include "driver/RunPlan.h"
#include "driver/RunStart.h"
#include "driver/TranscriptJournal.h"
#include "mail/ChosenDelivery.h"
#include "platform/FileManager.h"
#include "platform/Home.h"
#include "platform/Log.h"
#include "platform/MappedFile.h"
#include "platform/Pause.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

// Whether the run ends after the pipeline's `outcome`: always once it has
// carried a transcript to the end or could not; after a chat left in place,
// when the walk's own question found it over.
bool runEnds(Extraction::Outcome outcome) {
  using Outcome = Extraction::Outcome;
  switch (outcome) {
  case Outcome::NotLoaded:
  case Outcome::LeftOpen:
  case Outcome::MailWaits:
    return isLikelyComplete;
  case Outcome::CannotLeave:
    return false; // the others are not held up behind it
  case Outcome::ErrorStands:
  case Outcome::CannotFinish:
  case Outcome::NotArchived:
  case Outcome::NotMoved:
  case Outcome::Moved:
    return true;
  }
  return true;
}

} // namespace

int runOnce(const RunOptions &options) {
  const auto started = startRun();
  if (!started)
    return 0;
  // The password is left to the mail: a command of the user's that asks a
  // keyring is not run every few minutes for nothing.
  if (!RunPlan::ofSettings(RunPlan::Password::NotTried).allowsRun())
    return 0;

  const fs::path chatFolder = homeDirectory() / "Documents/iChats";
  shouldQuit = true;
  DirectoryEnumerator entries(chatFolder);

  readDebugMode();
  const auto delivery = chosenDelivery(MailSettings::read(appSettings()), Resending::Allowed, MailSessions::OnePerMessage);

  while (const auto entry = entries.nextObject()) {
    if (removeEmptyDayFolder(chatFolder / *entry))
      continue;
    judgeEntry(*entry);
    if (verbose)
      logFormat("Processing %@", *entry);

    const std::string path = (chatFolder / *entry).string();
    // An unreadable file decodes as no data at all. A transcript may be
    // tens of megabytes: its pages are let go as the decoder passes them,
    // and the file is gone once decoded and named. One cut short meanwhile
    // is left for a later run, as one that cannot be read.
    std::optional<ICLPChatLog> log;
    std::string contentKey;
    if (ICLPChatLog::hasTranscriptExtension(path)) {
      if (auto file = MappedFile::open(path)) {
        contentKey = TranscriptJournal::identityOf(file->bytes()).key();
        file->release(file->bytes().size());
        log = ICLPChatLog::initWithMappedFile(path, *file);
      } else {
        log = ICLPChatLog::initWithFileContents(path, {});
        contentKey = TranscriptJournal::identityOf({}).key();
      }
    }
    if (options.pause)
      pauseFor(*options.pause);
    else
      pauseBetweenEntries();
    if (!log)
      continue;

    ArchivesNow archives;
    if (runEnds(ExtractChatLog(path, &*log, contentKey, archives, *delivery).outcome))
      return 0;
  }
  return 0;
}

} // namespace parlova
