#include "driver/CommandLine.h"

#include <cstdlib>
#include <string_view>

#include "platform/Pause.h"

#ifndef PARLOVA_VERSION
#define PARLOVA_VERSION "unknown"
#endif

namespace parlova {

std::variant<RunOptions, std::string> parseCommandLine(std::span<const char *const> arguments) {
  RunOptions options;
  for (size_t i = 0; i < arguments.size(); ++i) {
    std::string_view argument = arguments[i];
    std::optional<std::string_view> attached;
    if (const auto equals = argument.find('='); argument.starts_with("--") && equals != std::string_view::npos) {
      attached = argument.substr(equals + 1);
      argument = argument.substr(0, equals);
    }
    // The value of an option that takes one: attached with "=", or the next
    // argument.
    const auto value = [&]() -> std::optional<std::string> {
      if (attached)
        return std::string(*attached);
      if (i + 1 < arguments.size())
        return std::string(arguments[++i]);
      return std::nullopt;
    };
    const bool takesValue = argument == "--pause" || argument == "--commit-every";
    if (attached && !takesValue)
      return "option '" + std::string(argument) + "' takes no value";

    if (argument == "--help" || argument == "-h") {
      options.help = true;
    } else if (argument == "--version") {
      options.version = true;
    } else if (argument == "--catch-up") {
      options.catchUp = true;
    } else if (argument == "--setup") {
      options.setup = true;
    } else if (argument == "--rebuild-history") {
      options.rebuildHistory = true;
    } else if (argument == "--dry-run" || argument == "-n") {
      options.dryRun = true;
    } else if (argument == "--quiet" || argument == "-q") {
      options.quiet = true;
    } else if (argument == "--pause") {
      const auto text = value();
      const auto seconds = text ? parseSeconds(text->c_str()) : std::nullopt;
      if (!seconds)
        return "--pause needs a number of seconds (0 or more)";
      options.pause = seconds;
    } else if (argument == "--commit-every") {
      const auto text = value();
      char *end = nullptr;
      const unsigned long long count = text ? std::strtoull(text->c_str(), &end, 10) : 0;
      if (!text || text->empty() || *end != '\0' || count == 0 || text->front() == '-')
        return "--commit-every needs a number of transcripts (1 or more)";
      options.commitEvery = static_cast<size_t>(count);
    } else if (argument.starts_with("-")) {
      return "unknown option '" + std::string(argument) + "'";
    } else {
      return "unexpected argument '" + std::string(argument) + "'";
    }
  }
  return options;
}

std::string usageText() {
  return "usage: parlova [--catch-up] [--rebuild-history] [--dry-run] [--quiet] [--pause SECONDS]\n"
         "               [--commit-every N] [--setup]\n"
         "\n"
         "Carries finished iChat transcripts from ~/Documents/iChats through: mails them,\n"
         "gathers their links and pictures, counts them, and moves them into\n"
         "~/Documents/iChats (Parlovaed). With no options: one transcript per run.\n"
         "\n"
         "  --catch-up          every finished transcript in one run (a first run on an\n"
         "                      existing archive); no pause between entries\n"
         "  --rebuild-history   read every processed transcript into the chat history\n"
         "                      (~/Library/Parlova/history.sqlite); run twice, it adds\n"
         "                      nothing\n"
         "  -n, --dry-run       only say what a run would process and what it would leave\n"
         "                      and why; change nothing, send nothing\n"
         "  -q, --quiet         no progress line during a catch-up\n"
         "  --pause SECONDS     pause after every entry (a run's own pause is 5 seconds)\n"
         "  --commit-every N    a catch-up writes its archives and pages after every N\n"
         "                      transcripts (default 10000) and at least once a minute\n"
         "  --setup             copy the shipped templates and word lists into\n"
         "                      ~/Library/Parlova (keeping yours), make the transcript\n"
         "                      folders, and say what to do next\n"
         "  -h, --help          this text\n"
         "  --version           the version\n"
         "\n"
         "Settings: ~/Library/Preferences/com.hollowmere.parlova.plist (parlova-defaults)\n"
         "Archives and pages: ~/Library/Parlova\n";
}

std::string versionText() { return "parlova " PARLOVA_VERSION "\n"; }

} // namespace parlova
