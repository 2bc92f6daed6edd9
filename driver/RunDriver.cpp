#include "driver/RunDriver.h"

#include <cstdlib>
#include <filesystem>

#include "context/OpenChatScript.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/CatchUp.h"
#include "driver/DryRun.h"
#include "driver/ExtractChatLog.h"
#include "driver/HistoryRebuild.h"
#include "driver/Setup.h"
#include "generator/ICLPLogGenerator.h"
#include "platform/FileManager.h"
#include "platform/Home.h"
#include "platform/Log.h"
#include "platform/Pause.h"
#include "platform/RunningApplications.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

bool isIChatRunning() {
  const auto applications = launchedApplications();
  if (applications.empty()) {
    logLine("An error occurred while communicating with iChat. (1)");
    return false;
  }
  for (const ApplicationInfo &application : applications) {
    const auto name = application.find("NSApplicationName");
    if (name != application.end() && name->second == "iChat")
      return true;
  }
  return false;
}

// With iChat running, a conversation is over once iChat says it has no
// window open with the buddy the entry's name gives. No answer at all
// counts as still open, so a live chat is never archived.
bool isConversationOver(const std::string &entry) {
  const auto on = entry.rfind(" on ");
  if (on == std::string::npos)
    return false;
  const auto open = isChatWindowOpen(entry.substr(0, on));
  return open.has_value() && !*open;
}

int runOnce(const RunOptions &options) {
  const auto started = startRun();
  if (!started)
    return 0;

  const fs::path chatFolder = homeDirectory() / "Documents/iChats";
  shouldQuit = true;
  DirectoryEnumerator entries(chatFolder);

  readDebugMode();

  while (const auto entry = entries.nextObject()) {
    judgeEntry(*entry);
    if (verbose)
      logFormat("Processing %@", *entry);

    const std::string path = (chatFolder / *entry).string();
    auto log = ICLPChatLog::initWithFilePath(path);
    if (options.pause)
      pauseFor(*options.pause);
    else
      pauseBetweenEntries();
    if (!log)
      continue;

    ExtractChatLog(path, &*log);
    if (isLikelyComplete)
      std::exit(0);
  }
  return 0;
}

} // namespace

void readDebugMode() {
  const auto debugMode = appSettings().copyAppValue("debugMode");
  verbose = debugMode && debugMode->intValue() == 2;
}

bool settingsAreUsable() {
  // Read as if every feature were off, damaged settings would archive
  // transcripts without their mail: better no run until they are right.
  const auto damage = appSettings().damage();
  if (damage)
    logFormat("The settings file %@ is damaged: %@. This run ends and touches nothing; put the file right, or "
              "delete it to start afresh (parlova-defaults delete %@).",
              appSettings().file().string(), *damage, std::string(kSettingsDomain));
  return !damage;
}

std::optional<RunLockAttempt> startRun() {
  if (!settingsAreUsable())
    return std::nullopt;
  // Copies of the settings (password included) that a writer killed
  // half-way left behind.
  removeOrphanedTemporaries(appSettings().file().parent_path());
  // One run at a time: two would mail, gather and count the same transcript.
  const fs::path lockFile = ICLPLogGenerator::parlovaFolder() / ".parlova.lock";
  auto lock = RunLock::tryAcquire(lockFile);
  if (lock.outcome == RunLock::Outcome::HeldElsewhere) {
    logLine("Another run of parlova is under way; this one ends.");
    return std::nullopt;
  }
  if (lock.outcome == RunLock::Outcome::Unavailable) {
    // Without the lock two runs could mail, gather and count the same
    // transcript: better no run at all until it is put right.
    logFormat("Could not lock %@: %@ (%@); this run ends and changes nothing until the lock can be taken.",
              lockFile.string(), lock.error, describeItem(lockFile));
    return std::nullopt;
  }
  if (!FinishInterruptedArchiving())
    return std::nullopt;
  return lock;
}

void judgeEntry(const std::string &entry, std::chrono::milliseconds reuseFor) {
  Preferences &settings = appSettings();
  settings.appSynchronize();
  [[maybe_unused]] const auto emailAddress = settings.stringValue("emailAddress");

  static std::optional<std::chrono::steady_clock::time_point> lookedAt;
  const auto now = std::chrono::steady_clock::now();
  if (!lookedAt || now - *lookedAt > reuseFor) {
    iChatRunning = isIChatRunning();
    lookedAt = now;
  }
  isLikelyComplete = iChatRunning ? isConversationOver(entry) : true;
}

int runParlova(const RunOptions &options) {
  if (options.dryRun)
    return dryRun(options);
  if (options.setup)
    return setUp();
  if (options.rebuildHistory)
    return rebuildHistory(options);
  if (options.catchUp)
    return catchUp(options);
  return runOnce(options);
}

} // namespace parlova
