// What every run does first, whatever its kind.
#pragma once

#include <optional>

#include "platform/RunLock.h"

namespace parlova {

// Takes the run lock and repairs what an interrupted run left. Nothing when
// the settings are damaged, another run holds the lock or the repair could
// not be finished (each is logged); the run then ends. Keep what it
// returns for the whole run.
std::optional<RunLockAttempt> startRun();

// Sets verbose from the setting debugMode, once at the start of a run.
void readDebugMode();

// False, with a log line, when the settings file is there but damaged: no
// run may go on then.
bool settingsAreUsable();

} // namespace parlova
