#include "platform/DeferredSyncs.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <map>
#include <utility>
#include <vector>
#include <sys/stat.h>

#include "platform/FileDescriptor.h"

namespace parlova {

namespace {

// A path on each file system with writes to flush, by device.
std::map<dev_t, std::filesystem::path> &noted() {
  static std::map<dev_t, std::filesystem::path> paths;
  return paths;
}

std::vector<std::function<bool()>> &waiting() {
  static std::vector<std::function<bool()>> steps;
  return steps;
}

int scopes = 0;

// FileManager flushes through here, not the other way round.
bool syncFileSystemOf(const std::filesystem::path &path) {
  const FileDescriptor opened(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return opened && syncfs(opened.get()) == 0;
}

bool flushNoted() {
  bool flushed = true;
  int reason = 0;
  for (auto it = noted().begin(); it != noted().end();) {
    // A path removed since still names its file system by its folder.
    if (syncFileSystemOf(it->second) || syncFileSystemOf(it->second.parent_path())) {
      it = noted().erase(it);
      continue;
    }
    flushed = false;
    reason = errno;
    ++it;
  }
  errno = reason;
  return flushed;
}

} // namespace

DeferredSyncs::Scope::Scope() { ++scopes; }

DeferredSyncs::Scope::~Scope() {
  if (--scopes == 0)
    flushAll();
}

bool DeferredSyncs::deferring() { return scopes > 0; }

void DeferredSyncs::note(const std::filesystem::path &path) {
  struct stat status{};
  if (stat(path.c_str(), &status) == 0)
    noted().try_emplace(status.st_dev, path);
}

void DeferredSyncs::afterFlush(std::function<bool()> then) { waiting().push_back(std::move(then)); }

bool DeferredSyncs::stepsWaiting() { return !waiting().empty(); }

bool DeferredSyncs::flushAll() {
  if (!flushNoted())
    return false;
  if (waiting().empty())
    return true;
  bool done = true;
  int reason = 0;
  for (const auto &step : std::exchange(waiting(), {}))
    if (!step()) {
      done = false;
      reason = errno;
    }
  const bool flushed = flushNoted();
  if (!done)
    errno = reason;
  return done && flushed;
}

} // namespace parlova
