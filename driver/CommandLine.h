// What a person can ask of parlova on its command line. With no arguments a
// run is what it always was; every option is an addition.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <variant>

#include "foundation/Date.h"

namespace parlova {

struct RunOptions {
  // What the run does; one at a time.
  enum class Task {
    Run,            // at most one transcript, the timer's run
    CatchUp,        // every finished transcript
    Setup,          // puts the shipped templates and word lists into the home
    RebuildHistory, // reads every processed transcript into the chat history
    RebuildPages,   // draws every page again from the archives
    MailProcessed,  // mails processed transcripts with today's settings
  };
  Task task = Task::Run;
  bool help = false;
  bool version = false;
  bool dryRun = false;
  bool quiet = false;
  // Log lines for every transcript of a catch-up on a terminal too.
  bool verbose = false;
  // The catch-up's question is answered yes.
  bool yes = false;
  // A pause after every entry in place of the usual one (a catch-up has
  // none of its own).
  std::optional<double> pause;
  // A catch-up commits after this many transcripts (or kCommitSeconds).
  size_t commitEvery = kCommitEvery;
  // The chats --mail-processed mails: begun on or after `since`, before
  // the day after `until`.
  std::optional<Date> since;
  std::optional<Date> until;

  static constexpr size_t kCommitEvery = 10000;
  static constexpr double kCommitSeconds = 60;
};

// The options, or the one-line complaint about the first argument that is
// not one, or about options that cannot go together (without the
// program's name).
std::variant<RunOptions, std::string> parseCommandLine(std::span<const char *const> arguments);

std::string usageText();
std::string versionText();

} // namespace parlova
