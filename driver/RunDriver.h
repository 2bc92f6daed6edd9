// The run the command line asks for.
#pragma once

#include "driver/CommandLine.h"

namespace parlova {

// One run: walks ~/Documents/iChats and carries at most one finished
// transcript through the pipeline. Returns its exit status. The options
// make it a catch-up, a dry run, the first set-up or a history rebuild.
int runParlova(const RunOptions &options = {});

} // namespace parlova
