#include "mail/MaildirFolder.h"

#include "platform/DeferredSyncs.h"
#include "platform/FileManager.h"
#include "platform/GatheredWriter.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace parlova {

namespace fs = std::filesystem;

namespace {

// The names in cur/ and new/ (without the flags after ":"), read once per
// folder and run: a catch-up stores thousands of messages into one folder,
// and reading it anew for each would take time that grows with the square.
std::set<std::string> &namesIn(const fs::path &folder) {
  static std::map<fs::path, std::set<std::string>> known;
  const auto [entry, added] = known.try_emplace(folder);
  if (added) {
    std::error_code error;
    for (const char *part : {"cur", "new"})
      for (auto it = fs::directory_iterator(folder / part, error); !error && it != fs::directory_iterator();
           it.increment(error)) {
        const std::string name = it->path().filename().string();
        entry->second.insert(name.substr(0, name.find(':')));
      }
  }
  return entry->second;
}

std::string failure(const std::string &what, const fs::path &path, int error) {
  return what + " " + path.string() + ": " + std::strerror(error);
}

} // namespace

MaildirFolder::MaildirFolder(fs::path maildir, const std::string &folderName)
    : folder_(folderName.empty() ? std::move(maildir) : std::move(maildir) / ("." + folderName)),
      subFolder_(!folderName.empty()) {}

MaildirFolder::Result MaildirFolder::store(const std::string &name, const FramedMessage &message,
                                           double modified, Durability durability) const {
  for (const char *part : {"tmp", "cur", "new"}) {
    std::error_code error;
    fs::create_directories(folder_ / part, error);
    if (error)
      return {Outcome::Failed, failure("cannot make", folder_ / part, error.value())};
  }
  // Maildir++ readers (Dovecot among them) know a sub-folder by this file.
  if (subFolder_ && !fs::exists(folder_ / "maildirfolder"))
    close(open((folder_ / "maildirfolder").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  std::set<std::string> &names = namesIn(folder_);
  if (names.count(name))
    return {Outcome::AlreadyThere, {}};

  // A copy left in tmp/ by a run that was killed has this same name and is
  // simply written over.
  const fs::path writing = folder_ / "tmp" / name;
  const int fd = open(writing.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0)
    return {Outcome::Failed, failure("cannot write", writing, errno)};
  // Made as it is written: a huge message is never held whole.
  GatheredWriter out(fd);
  message.write([&out](std::string_view piece) { out.add(piece); });
  const bool allWritten = out.finish();
  const double whole = std::floor(modified);
  const timespec times[2] = {{static_cast<time_t>(whole), static_cast<long>((modified - whole) * 1e9)},
                             {static_cast<time_t>(whole), static_cast<long>((modified - whole) * 1e9)}};
  const bool complete = allWritten && (durability == Durability::ByNextSync || fsync(fd) == 0) &&
                        futimens(fd, times) == 0;
  const int reason = errno;
  close(fd);
  const fs::path stored = folder_ / "cur" / (name + ":2,S");
  if (complete && durability == Durability::ByNextSync) {
    // Named in cur/ only once its bytes are on the disk: after a power cut
    // a name there must stand for a whole message, or the next run would
    // take it as stored.
    DeferredSyncs::note(writing);
    DeferredSyncs::afterFlush([writing, stored] {
      if (std::rename(writing.c_str(), stored.c_str()) != 0)
        return false;
      DeferredSyncs::note(stored);
      return true;
    });
    names.insert(name);
    return {Outcome::Stored, {}};
  }
  if (!complete || std::rename(writing.c_str(), stored.c_str()) != 0) {
    const int why = complete ? errno : reason;
    unlink(writing.c_str());
    return {Outcome::Failed, failure("cannot store", complete ? stored : writing, why)};
  }
  syncFolderOf(stored);
  names.insert(name);
  return {Outcome::Stored, {}};
}

} // namespace parlova
