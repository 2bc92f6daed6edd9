// What a person can ask of parlova on its command line. With no arguments a
// run is what it always was; every option is an addition.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <variant>

namespace parlova {

struct RunOptions {
  bool help = false;
  bool version = false;
  bool catchUp = false;
  // Reads every processed transcript into the chat history.
  bool rebuildHistory = false;
  // Puts the shipped templates and word lists into the user's home.
  bool setup = false;
  bool dryRun = false;
  bool quiet = false;
  // A pause after every entry in place of the usual one (a catch-up has
  // none of its own).
  std::optional<double> pause;
  // A catch-up commits after this many transcripts (or kCommitSeconds).
  size_t commitEvery = kCommitEvery;

  static constexpr size_t kCommitEvery = 10000;
  static constexpr double kCommitSeconds = 60;
};

// The options, or the one-line complaint about the first argument that is
// not one (without the program's name).
std::variant<RunOptions, std::string> parseCommandLine(std::span<const char *const> arguments);

std::string usageText();
std::string versionText();

} // namespace parlova
