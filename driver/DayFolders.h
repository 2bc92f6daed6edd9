// iChat kept its transcripts in one folder per day ("2005-03-01"). Once a
// day's transcripts have left, its folder is only one more entry of every
// walk, each with its pause: an empty one is removed.
#pragma once

#include <filesystem>

namespace parlova {

// Whether `folder` is a day's folder that may go once it is empty: one at
// least two days old (today's and yesterday's may be about to receive a
// chat that is still going on).
bool isRemovableDayFolder(const std::filesystem::path &folder);
// Removes `folder` when it is such a folder and empty. True when it was
// removed.
bool removeEmptyDayFolder(const std::filesystem::path &folder);

} // namespace parlova
