#include "driver/DryRun.h"

#include <cstdio>
#include <filesystem>
#include <string>

#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/DayFolders.h"
#include "driver/EntryJudgement.h"
#include "driver/RunPlan.h"
#include "driver/RunStart.h"
#include "driver/TranscriptJournal.h"
#include "foundation/TerminalText.h"
#include "generator/ICLPLogGenerator.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/Home.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

// An entry's name goes through terminalLine: a file name that someone
// else's screen name went into.
void say(const std::string &line) { std::fputs((line + "\n").c_str(), stdout); }

} // namespace

int dryRun(const RunOptions &options) {
  if (!settingsAreUsable()) {
    say("problem  the settings file is damaged; a run would end before anything else");
    return 1;
  }
  const fs::path chatFolder = homeDirectory() / "Documents/iChats";
  const RunPlan plan = RunPlan::ofSettings(RunPlan::Password::Tried);
  std::fputs(plan.text().c_str(), stdout);
  bool problem = !plan.problems().empty();
  if (std::error_code error; !fs::is_directory(chatFolder, error)) {
    say("problem  there is no transcript folder " + chatFolder.string() + " (parlova --setup makes it)");
    problem = true;
  }
  if (fs::exists(TranscriptJournal(ICLPLogGenerator::parlovaFolder()).journalFile()))
    say("note     a run was interrupted; the next run first puts its archives right");

  Preferences &settings = appSettings();
  readDebugMode();
  const bool catchUp = options.task == RunOptions::Task::CatchUp;

  size_t toProcess = 0;
  size_t toLeave = 0;
  DirectoryEnumerator entries(chatFolder);
  while (const auto entry = entries.nextObject()) {
    const fs::path path = chatFolder / *entry;
    if (std::error_code error; isRemovableDayFolder(path) && fs::is_empty(path, error)) {
      say("remove   " + terminalLine(*entry) + ": an empty day folder");
      continue;
    }
    judgeEntry(*entry);
    const auto log = ICLPChatLog::initWithFilePath(path);
    if (!log) {
      if (ICLPChatLog::hasTranscriptExtension(path) && !fs::is_directory(path)) {
        say("leave    " + terminalLine(*entry) + ": does not load: " + ICLPChatLog::reasonNotLoaded(path));
        ++toLeave;
      }
      continue;
    }
    if (!log->isLikelyEndOfChat()) {
      say("leave    " + terminalLine(*entry) + ": the chat is still open");
      ++toLeave;
      // A run ends at such a chat when the walk's own question found it over.
      if (!catchUp && isLikelyComplete)
        break;
      continue;
    }
    if (const int32_t error = settings.intValue("errorStatus"); error != 0) {
      say("stop at  " + terminalLine(*entry) + ": an email error stands (errorStatus " + std::to_string(error) +
          "); nothing is archived until it is deleted");
      break;
    }
    say("process  " + terminalLine(*entry));
    ++toProcess;
    if (!catchUp)
      break;
  }
  if (catchUp)
    say(std::to_string(toProcess) + " to process, " + std::to_string(toLeave) + " to leave");
  return problem ? 1 : 0;
}

} // namespace parlova
