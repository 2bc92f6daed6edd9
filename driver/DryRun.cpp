#include "driver/DryRun.h"

#include <cstdio>
#include <filesystem>
#include <string>

#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/EntryJudgement.h"
#include "driver/RunStart.h"
#include "driver/TranscriptJournal.h"
#include "generator/ICLPLogGenerator.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/Home.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

void say(const std::string &line) { std::fputs((line + "\n").c_str(), stdout); }

} // namespace

int dryRun(const RunOptions &options) {
  if (!settingsAreUsable()) {
    say("stop: the settings file is damaged; a run would end before anything else");
    return 0;
  }
  const fs::path chatFolder = homeDirectory() / "Documents/iChats";
  if (fs::exists(TranscriptJournal(ICLPLogGenerator::parlovaFolder()).journalFile()))
    say("note: a run was interrupted; the next run first puts its archives right");

  Preferences &settings = appSettings();
  readDebugMode();

  size_t toProcess = 0;
  size_t toLeave = 0;
  DirectoryEnumerator entries(chatFolder);
  while (const auto entry = entries.nextObject()) {
    judgeEntry(*entry);
    const fs::path path = chatFolder / *entry;
    const auto log = ICLPChatLog::initWithFilePath(path);
    if (!log) {
      if (ICLPChatLog::hasTranscriptExtension(path) && !fs::is_directory(path)) {
        say("leave    " + *entry + ": does not load: " + ICLPChatLog::reasonNotLoaded(path));
        ++toLeave;
      }
      continue;
    }
    if (!log->isLikelyEndOfChat()) {
      say("leave    " + *entry + ": the chat is still open");
      ++toLeave;
      // A run ends at such a chat when the walk's own question found it over.
      if (!options.catchUp && isLikelyComplete)
        break;
      continue;
    }
    if (const int32_t error = settings.intValue("errorStatus"); error != 0) {
      say("stop at  " + *entry + ": an email error stands (errorStatus " + std::to_string(error) +
          "); nothing is archived until it is deleted");
      break;
    }
    say("process  " + *entry);
    ++toProcess;
    if (!options.catchUp)
      break;
  }
  if (options.catchUp)
    say(std::to_string(toProcess) + " to process, " + std::to_string(toLeave) + " to leave");
  return 0;
}

} // namespace parlova
