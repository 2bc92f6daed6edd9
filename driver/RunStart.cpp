#include "driver/RunStart.h"

#include <filesystem>

#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/InterruptedRun.h"
#include "generator/PendingHistory.h"
#include "generator/ICLPLogGenerator.h"
#include "history/ChatHistory.h"
#include "platform/FileManager.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

void readDebugMode() {
  const auto debugMode = appSettings().copyAppValue("debugMode");
  verbose = debugMode && debugMode->intValue() == 2;
}

bool settingsAreUsable() {
  // Read as if every feature were off, damaged settings would archive
  // transcripts without their mail: better no run until they are right.
  const auto damage = appSettings().damage();
  if (damage && Preferences::isNotDamage(*damage))
    logFormat("The settings file %@ cannot be read: %@. This run ends and touches nothing; give the file back to "
              "the user who runs Parlova.",
              appSettings().file().string(), *damage);
  else if (damage)
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
  if (ChatHistory::wanted())
    PendingHistory::writeDue();
  return lock;
}

} // namespace parlova
