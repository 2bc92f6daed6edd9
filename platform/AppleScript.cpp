#include "platform/AppleScript.h"

#include "platform/FileDescriptor.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

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

std::string trimmed(const std::string &text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos)
    return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

template <class T> std::vector<uint8_t> hostOrderBytes(T value) {
  std::vector<uint8_t> bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

} // namespace

std::optional<uint32_t> AppleEventDescriptor::fourCharCodeInBigEndian() const {
  if (data.size() < 4)
    return std::nullopt;
  uint32_t code = 0;
  std::memcpy(&code, data.data(), 4);
  return htonl(code);
}

std::optional<int32_t> AppleEventDescriptor::int32Value() const {
  if (data.size() < 4)
    return std::nullopt;
  int32_t value = 0;
  std::memcpy(&value, data.data(), 4);
  return value;
}

std::optional<AppleEventDescriptor> descriptorForAnswer(const std::string &output) {
  const std::string answer = trimmed(output);
  if (answer.empty())
    return std::nullopt;
  if (answer == "yes")
    return AppleEventDescriptor{fourCharCode("enum"), hostOrderBytes(fourCharCode("yes "))};
  if (answer == "no")
    return AppleEventDescriptor{fourCharCode("enum"), hostOrderBytes(fourCharCode("no  "))};
  errno = 0;
  char *end = nullptr;
  const long long number = std::strtoll(answer.c_str(), &end, 10);
  if (*end == '\0' && errno == 0 && number >= INT32_MIN && number <= INT32_MAX)
    return AppleEventDescriptor{fourCharCode("long"), hostOrderBytes(static_cast<int32_t>(number))};
  return AppleEventDescriptor{fourCharCode("utf8"), std::vector<uint8_t>(answer.begin(), answer.end())};
}

std::optional<AppleEventDescriptor> AppleScript::executeAndReturnError(std::chrono::seconds timeout) const {
  // A command that quits without reading its input must not take us down.
  std::signal(SIGPIPE, SIG_IGN);

  const char *configured = std::getenv("PARLOVA_OSASCRIPT");
  const std::string command = configured && *configured ? configured : "osascript";

  Pipe input, output;
  if (!input.open() || !output.open())
    return std::nullopt;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.read.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.write.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  char *argv[] = {const_cast<char *>(command.c_str()), nullptr};
  pid_t child = -1;
  const int spawned = posix_spawnp(&child, command.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0)
    return std::nullopt;
  input.read.reset();
  output.write.reset();

  const auto deadline = std::chrono::steady_clock::now() + timeout;
  size_t written = 0;
  std::string answer;
  bool timedOut = false;
  while (true) {
    pollfd fds[2];
    nfds_t count = 0;
    fds[count++] = {output.read.get(), POLLIN, 0};
    if (input.write.get() >= 0)
      fds[count++] = {input.write.get(), POLLOUT, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timedOut = true;
      break;
    }
    if (poll(fds, count, static_cast<int>(left.count())) < 0) {
      if (errno == EINTR)
        continue;
      break;
    }
    if (count > 1 && fds[1].revents) {
      const ssize_t n = write(input.write.get(), source_.data() + written, source_.size() - written);
      if (n > 0)
        written += static_cast<size_t>(n);
      if (n < 0 || written == source_.size())
        input.write.reset();
    }
    if (fds[0].revents) {
      char buffer[4096];
      const ssize_t n = read(output.read.get(), buffer, sizeof buffer);
      if (n > 0 && answer.size() < (1u << 20))
        answer.append(buffer, static_cast<size_t>(n));
      else if (n == 0 || (n < 0 && errno != EINTR))
        break;
    }
  }
  input.write.reset();
  output.read.reset();
  if (timedOut)
    kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (timedOut || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return std::nullopt;
  return descriptorForAnswer(answer);
}

} // namespace parlova
