// One run at a time: an advisory lock on a file, held for as long as the
// object lives. The kernel drops it when the process ends, however it ends,
// so a run that died never leaves a stale lock behind.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace parlova {

struct RunLockAttempt;

class RunLock {
public:
  enum class Outcome { Acquired, HeldElsewhere, Unavailable };

  // Never waits. The lock file's folder is created when missing.
  static RunLockAttempt tryAcquire(const std::filesystem::path &lockFile);

  RunLock(RunLock &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  RunLock &operator=(RunLock &&) = delete;
  RunLock(const RunLock &) = delete;
  ~RunLock();

private:
  explicit RunLock(int fd) : fd_(fd) {}
  int fd_;
};

struct RunLockAttempt {
  RunLock::Outcome outcome;
  std::optional<RunLock> lock; // only when acquired
  std::string error;           // why it is unavailable
};

} // namespace parlova
