#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "driver/CommandLine.h"
#include "platform/RunLock.h"

namespace parlova {

// One run: walks ~/Documents/iChats and carries at most one finished
// transcript through the pipeline. Returns 0 when the walk runs out. The
// options add a catch-up, a dry run and another pause.
int runParlova(const RunOptions &options = {});

// What every run does first: takes the run lock and repairs what an
// interrupted run left. Nothing when another run holds the lock (that is
// logged); the run then ends. Keep what it returns for the whole run.
std::optional<RunLockAttempt> startRun();

// Sets verbose from the setting debugMode, once at the start of a run.
void readDebugMode();

// False, with a log line, when the settings file is there but damaged: no
// run may go on then.
bool settingsAreUsable();

// What every run does for each entry of the walk before loading it: the
// settings read afresh, iChat asked whether it runs and, if so, whether the
// entry's chat window is still open. Sets iChatRunning and
// isLikelyComplete. A catch-up, which judges thousands of entries a minute,
// may take whether iChat runs from a look at the processes up to
// `reuseFor` old.
void judgeEntry(const std::string &entry, std::chrono::milliseconds reuseFor = {});

} // namespace parlova
