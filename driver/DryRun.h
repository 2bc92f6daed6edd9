#pragma once

#include "driver/CommandLine.h"

namespace parlova {

// Walks and judges as a run (or a catch-up) would, and prints on stdout
// each transcript it would process and each it would leave, with why.
// Changes nothing: no file, no setting, no mail, no lock.
int dryRun(const RunOptions &options);

} // namespace parlova
