#include "platform/ChildProcess.h"

#include "platform/FileDescriptor.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace parlova {
namespace {

struct Pipe {
  FileDescriptor read, write;
  bool open() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
      return false;
    read = FileDescriptor(fds[0]);
    write = FileDescriptor(fds[1]);
    return true;
  }
};

constexpr size_t kLongestOutput = 1u << 20;

} // namespace

std::string ChildOutcome::failure() const {
  if (notStarted)
    return "could not be started";
  if (timedOut)
    return "no answer within the time allowed";
  if (!exitStatus)
    return "killed by a signal";
  return *exitStatus == 0 ? "" : "exit " + std::to_string(*exitStatus);
}

ChildOutcome runChildProcess(const std::vector<std::string> &arguments, std::string_view input,
                             std::chrono::seconds timeout) {
  // A command that quits without reading its input must not take us down.
  std::signal(SIGPIPE, SIG_IGN);
  ChildOutcome outcome;
  Pipe toChild, fromChild;
  if (arguments.empty() || !toChild.open() || !fromChild.open()) {
    outcome.notStarted = true;
    return outcome;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild.read.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild.write.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<char *> argv;
  for (const std::string &argument : arguments)
    argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  // A group of its own, so that what it starts goes with it at the limit.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  pid_t child = -1;
  const int spawned = posix_spawnp(&child, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (spawned != 0) {
    outcome.notStarted = true;
    return outcome;
  }
  toChild.read.reset();
  fromChild.write.reset();
  if (input.empty())
    toChild.write.reset();

  const auto deadline = std::chrono::steady_clock::now() + timeout;
  size_t written = 0;
  while (true) {
    pollfd fds[2];
    nfds_t count = 0;
    fds[count++] = {fromChild.read.get(), POLLIN, 0};
    if (toChild.write.get() >= 0)
      fds[count++] = {toChild.write.get(), POLLOUT, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      outcome.timedOut = true;
      break;
    }
    if (poll(fds, count, static_cast<int>(left.count())) < 0) {
      if (errno == EINTR)
        continue;
      break;
    }
    if (count > 1 && fds[1].revents) {
      const ssize_t n = write(toChild.write.get(), input.data() + written, input.size() - written);
      if (n > 0)
        written += static_cast<size_t>(n);
      if (n < 0 || written == input.size())
        toChild.write.reset();
    }
    if (fds[0].revents) {
      char buffer[4096];
      const ssize_t n = read(fromChild.read.get(), buffer, sizeof buffer);
      if (n > 0 && outcome.output.size() < kLongestOutput)
        outcome.output.append(buffer, static_cast<size_t>(n));
      else if (n == 0 || (n < 0 && errno != EINTR))
        break;
    }
  }
  toChild.write.reset();
  fromChild.read.reset();
  // A command may close its output and go on: the limit holds for its end
  // too.
  int status = 0;
  while (!outcome.timedOut) {
    const pid_t ended = waitpid(child, &status, WNOHANG);
    if (ended == child || (ended < 0 && errno != EINTR))
      break;
    if (std::chrono::steady_clock::now() >= deadline)
      outcome.timedOut = true;
    else if (ended == 0)
      usleep(10000);
  }
  if (outcome.timedOut) {
    kill(-child, SIGKILL);
    kill(child, SIGKILL);
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (!outcome.timedOut && WIFEXITED(status))
    outcome.exitStatus = WEXITSTATUS(status);
  return outcome;
}

} // namespace parlova
