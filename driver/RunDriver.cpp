#include "driver/RunDriver.h"

#include "driver/CatchUp.h"
#include "driver/DryRun.h"
#include "driver/HistoryRebuild.h"
#include "driver/Setup.h"
#include "driver/SingleRun.h"

namespace parlova {

int runParlova(const RunOptions &options) {
  if (options.dryRun)
    return dryRun(options);
  if (options.setup)
    return setUp();
  if (options.rebuildHistory)
    return rebuildHistory(options);
  if (options.catchUp)
    return catchUp(options);
  return runOnce(options);
}

} // namespace parlova
