// A whole backlog in one run: every finished transcript of the walk carried
// through, in the order successive single runs would take them, each with
// the same judgement, email, archives, move and log lines as a single run.
//
// The archives are held in memory and written, with the pages built from
// them, at commit points: every RunOptions::commitEvery transcripts, at
// least once every RunOptions::kCommitSeconds, and at the end. Until a
// commit the journal keeps the archives of the last one and notes every
// transcript before it is archived and moved, so that the next run finishes
// a batch cut short (a kill, a full disk): it puts the kept archives back
// and adds the batch's moved transcripts to them again.
#pragma once

#include "driver/CommandLine.h"

namespace parlova {

int catchUp(const RunOptions &options);

} // namespace parlova
