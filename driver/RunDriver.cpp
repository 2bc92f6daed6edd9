#include "driver/RunDriver.h"

#include "driver/CatchUp.h"
#include "driver/DryRun.h"
#include "driver/HistoryRebuild.h"
#include "driver/MailProcessed.h"
#include "driver/PageRebuild.h"
#include "driver/Setup.h"
#include "driver/SingleRun.h"

namespace parlova {

int runParlova(const RunOptions &options) {
  using Task = RunOptions::Task;
  switch (options.task) {
  case Task::Run:
    return options.dryRun ? dryRun(options) : runOnce(options);
  case Task::CatchUp:
    return options.dryRun ? dryRun(options) : catchUp(options);
  case Task::Setup:
    return setUp();
  case Task::RebuildHistory:
    return rebuildHistory(options);
  case Task::RebuildPages:
    return rebuildPages(options);
  case Task::MailProcessed:
    return mailProcessed(options);
  }
  return 2;
}

} // namespace parlova
