// Every page drawn again from what the archives hold, with the templates
// as they are now: after a catch-up made before the templates were put in
// place, or after a template was changed.
#pragma once

#include "driver/CommandLine.h"

namespace parlova {

// Exits 1 when a page that has an archive to show has no template, or the
// lock is held by another run.
int rebuildPages(const RunOptions &options);

} // namespace parlova
