#include "driver/ArchiveFolder.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "context/Settings.h"
#include "driver/DayFolders.h"
#include "foundation/PropertyList.h"
#include "model/ICLPChatLog.h"
#include "platform/Home.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

// Each new name is made from the previous one, so the suffixes pile up:
// "x.ichat", "x #2.ichat", "x #2 #3.ichat", ... That naming is settled and
// stays.
fs::path ArchiveTargetIn(const fs::path &archiveFolder, const fs::path &transcript,
                         const std::unordered_set<std::string> &alsoTaken) {
  fs::path target = archiveFolder / transcript.filename();
  for (int counter = 2; alsoTaken.contains(target.string()) || fileExistsAtPath(target); ++counter) {
    const std::string name = target.filename().string();
    target = target.parent_path() /
             (deletingPathExtension(name) + " #" + std::to_string(counter) + "." + pathExtension(name));
  }
  return target;
}

fs::path ArchiveFolder() { return homeDirectory() / "Documents" / "iChats (Parlovaed)"; }

std::vector<std::string> ProcessedTranscripts() {
  std::vector<std::string> entries;
  for (DirectoryEnumerator walk(ArchiveFolder()); const auto entry = walk.nextObject();)
    if (ICLPChatLog::hasTranscriptExtension(*entry))
      entries.push_back(*entry);
  return entries;
}

fs::path ArchiveTargetFor(const fs::path &transcript) { return ArchiveTargetIn(ArchiveFolder(), transcript); }

namespace {

// A clean slate for the email failure count.
void resetFailureCount(FailureCountReset reset) {
  Preferences &settings = appSettings();
  if (settings.intValue("errorStatus") != 0)
    return;
  if (reset == FailureCountReset::WhenNotZero) {
    // Only an integer 0: anything else is written as the integer it must be.
    const auto count = settings.copyAppValue("emailFails");
    if (count && plistInteger(count->node()) == 0)
      return;
  }
  settings.setAppValue("emailFails", PreferenceValue::integer(0));
  settings.appSynchronize();
}

} // namespace

void AnnounceMoveToArchiveFolder(const fs::path &transcript, const fs::path &target, FailureCountReset reset) {
  logRoutine("preparing to move %@ to %@", transcript.string(), target.string());
  resetFailureCount(reset);
}

bool MakeMoveToArchiveFolder(const fs::path &transcript, const fs::path &target, Durability durability) {
  std::error_code error;
  fs::create_directories(target.parent_path(), error);
  if (moveItem(transcript, target, durability)) {
    removeEmptyDayFolder(transcript.parent_path());
    return true;
  }
  const std::string reason = std::strerror(errno);
  logLine("FAILED");
  logFormat("Could not move %@ to %@: %@; later runs try the move again, and only the move.", transcript.string(),
            target.string(), reason);
  return false;
}

// The end of every processed transcript: the move, and a clean slate for
// the email failure count.
bool MoveToArchiveFolder(const fs::path &transcript, const fs::path &target, FailureCountReset reset) {
  logRoutine("preparing to move %@ to %@", transcript.string(), target.string());
  const bool moved = MakeMoveToArchiveFolder(transcript, target, Durability::Now);
  resetFailureCount(reset);
  return moved;
}

std::optional<std::string> WhyArchivingCannotFinish(const fs::path &target) {
  const fs::path folder = ArchiveFolder();
  std::error_code error;
  fs::create_directories(folder, error);
  const auto status = fs::symlink_status(folder, error);
  if (fs::is_symlink(status) && !fs::exists(fs::status(folder, error)))
    return "it is a link to " + fs::read_symlink(folder, error).string() + ", which is not there";
  if (!fs::is_directory(fs::status(folder, error)))
    return fileExistsAtPath(folder) ? "it is not a folder" : "it cannot be made: " + error.message();
  if (access(folder.c_str(), W_OK | X_OK) != 0)
    return std::strerror(errno);
  const std::string name = target.filename().string();
  const long longest = pathconf(folder.c_str(), _PC_NAME_MAX);
  if (longest > 0 && name.size() > static_cast<size_t>(longest))
    return "the name it would get there (" + std::to_string(name.size()) + " bytes) is longer than the file system "
           "allows (" + std::to_string(longest) + ")";
  return std::nullopt;
}

std::optional<std::string> WhyTranscriptCannotLeave(const fs::path &transcript) {
  const fs::path folder = transcript.parent_path();
  if (access(folder.c_str(), W_OK | X_OK) != 0)
    return "it cannot be moved out of " + folder.string() + ": " + std::strerror(errno);
  return std::nullopt;
}

void ReportTranscriptCannotLeave(const fs::path &transcript, const std::string &why) {
  logFormat("Nothing was sent or archived for %@: %@. It stays where it is; the next run tries again.",
            transcript.string(), why);
  Preferences &settings = appSettings();
  settings.setAppValue("reportThis", PreferenceValue::string(transcript.filename().string() + ": " + why));
  settings.appSynchronize();
}

void ReportArchivingCannotFinish(const std::string &why) {
  const std::string text = "cannot move transcripts into " + ArchiveFolder().string() + ": " + why;
  logFormat("Nothing was sent or archived: %@. The next run tries again.", text);
  Preferences &settings = appSettings();
  settings.setAppValue("reportThis", PreferenceValue::string(text));
  settings.appSynchronize();
}

} // namespace parlova
