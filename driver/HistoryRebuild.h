// parlova --rebuild-history: the chats processed before the history was
// kept, read from the processed folder into it.
#pragma once

#include "driver/CommandLine.h"

namespace parlova {

// Reads every transcript in ~/Documents/iChats (Parlovaed) and adds to the
// history those not in it yet, with the catch-up's progress line and a
// summary; then draws the statistics page again. Touches no transcript,
// archive or the totals file.
int rebuildHistory(const RunOptions &options);

} // namespace parlova
