// One run as the timer starts it: walks ~/Documents/iChats and carries at
// most one finished transcript through the pipeline.
#pragma once

#include "driver/CommandLine.h"

namespace parlova {

int runOnce(const RunOptions &options);

} // namespace parlova
