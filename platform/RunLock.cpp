#include "platform/RunLock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace parlova {

RunLockAttempt RunLock::tryAcquire(const std::filesystem::path &lockFile) {
  std::error_code error;
  std::filesystem::create_directories(lockFile.parent_path(), error);
  const int fd = open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0)
    return {Outcome::Unavailable, std::nullopt, std::strerror(errno)};
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int reason = errno;
    close(fd);
    if (reason == EWOULDBLOCK)
      return {Outcome::HeldElsewhere, std::nullopt, {}};
    return {Outcome::Unavailable, std::nullopt, std::strerror(reason)};
  }
  return {Outcome::Acquired, RunLock(fd), {}};
}

RunLock::~RunLock() {
  if (fd_ >= 0)
    close(fd_);
}

} // namespace parlova
