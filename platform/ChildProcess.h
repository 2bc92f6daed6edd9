// A command run to completion: its input handed over, its output read, and
// a time limit after which it is killed.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace parlova {

struct ChildOutcome {
  // The exit status when the command ran and exited by itself.
  std::optional<int> exitStatus;
  std::string output;      // standard output, at most 1 MiB of it
  bool timedOut = false;
  bool notStarted = false; // no such command, or no process to run it
  // Why it failed, for a message: "exit 1", "killed by signal 9",
  // "no answer within 120 seconds", "could not be started". Empty when
  // it exited with 0.
  std::string failure() const;
};

// Runs `arguments` (the first found on the PATH) with `input` on its
// standard input and its standard error thrown away.
ChildOutcome runChildProcess(const std::vector<std::string> &arguments, std::string_view input,
                             std::chrono::seconds timeout);

} // namespace parlova
