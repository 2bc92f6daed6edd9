#include "driver/DayFolders.h"

#include <unistd.h>

#include "foundation/LocalDay.h"

namespace parlova {

namespace fs = std::filesystem;

bool isRemovableDayFolder(const fs::path &folder) {
  const auto day = LocalDay::parse(folder.filename().string());
  if (!day || *day >= LocalDay::of(Date(Date::now().timeIntervalSinceReferenceDate() - 24 * 60 * 60)))
    return false;
  std::error_code error;
  return fs::is_directory(fs::symlink_status(folder, error));
}

bool removeEmptyDayFolder(const fs::path &folder) {
  // rmdir refuses a folder that is not empty: nothing in it is ever lost.
  return isRemovableDayFolder(folder) && rmdir(folder.c_str()) == 0;
}

} // namespace parlova
