#pragma once

namespace parlova {

// One run: walks ~/Documents/iChats and carries at most one finished
// transcript through the pipeline. Returns 0 when the walk runs out.
int runParlova();

} // namespace parlova
