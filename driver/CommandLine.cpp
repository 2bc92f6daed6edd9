#include "driver/CommandLine.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "foundation/LocalDay.h"
#include "platform/Pause.h"

#ifndef PARLOVA_VERSION
#define PARLOVA_VERSION "unknown"
#endif

namespace parlova {

namespace {

using Task = RunOptions::Task;

struct TaskOption {
  std::string_view name;
  Task task;
};
constexpr TaskOption kTasks[] = {{"--catch-up", Task::CatchUp},
                                 {"--setup", Task::Setup},
                                 {"--rebuild-history", Task::RebuildHistory},
                                 {"--rebuild-pages", Task::RebuildPages},
                                 {"--mail-processed", Task::MailProcessed}};

// The options that only mean something to some tasks, and those tasks.
struct Restriction {
  std::string_view option;
  std::vector<Task> tasks;
};

} // namespace

std::variant<RunOptions, std::string> parseCommandLine(std::span<const char *const> arguments) {
  RunOptions options;
  std::string_view taskOption;
  std::vector<std::string_view> given;
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
    const bool takesValue = argument == "--pause" || argument == "--commit-every" || argument == "--since" ||
                            argument == "--until";
    if (attached && !takesValue)
      return "option '" + std::string(argument) + "' takes no value";

    const TaskOption *task = nullptr;
    for (const TaskOption &candidate : kTasks)
      if (argument == candidate.name)
        task = &candidate;
    if (task) {
      if (!taskOption.empty() && taskOption != task->name)
        return std::string(taskOption) + " and " + std::string(task->name) + " cannot go together; run them one "
               "after the other";
      taskOption = task->name;
      options.task = task->task;
    } else if (argument == "--help" || argument == "-h") {
      options.help = true;
    } else if (argument == "--version") {
      options.version = true;
    } else if (argument == "--dry-run" || argument == "-n") {
      options.dryRun = true;
      given.push_back("--dry-run");
    } else if (argument == "--quiet" || argument == "-q") {
      options.quiet = true;
      given.push_back("--quiet");
    } else if (argument == "--verbose" || argument == "-v") {
      options.verbose = true;
      given.push_back("--verbose");
    } else if (argument == "--yes" || argument == "-y") {
      options.yes = true;
      given.push_back("--yes");
    } else if (argument == "--pause") {
      const auto text = value();
      const auto seconds = text ? parseSeconds(text->c_str()) : std::nullopt;
      if (!seconds)
        return "--pause needs a number of seconds (0 or more)";
      options.pause = seconds;
      given.push_back("--pause");
    } else if (argument == "--commit-every") {
      const auto text = value();
      char *end = nullptr;
      const unsigned long long count = text ? std::strtoull(text->c_str(), &end, 10) : 0;
      if (!text || text->empty() || *end != '\0' || count == 0 || text->front() == '-')
        return "--commit-every needs a number of transcripts (1 or more)";
      options.commitEvery = static_cast<size_t>(count);
      given.push_back("--commit-every");
    } else if (argument == "--since" || argument == "--until") {
      const auto text = value();
      const auto day = text ? LocalDay::parse(*text) : std::nullopt;
      if (!day)
        return std::string(argument) + " needs a day as YYYY-MM-DD";
      if (argument == "--since")
        options.since = day->start();
      else
        options.until = day->next().start();
      given.push_back(argument == "--since" ? "--since" : "--until");
    } else if (argument.starts_with("-")) {
      return "unknown option '" + std::string(argument) + "'";
    } else {
      return "unexpected argument '" + std::string(argument) + "'";
    }
  }

  const std::vector<Restriction> restrictions = {
      {"--dry-run", {Task::Run, Task::CatchUp, Task::RebuildHistory, Task::MailProcessed}},
      {"--quiet", {Task::CatchUp, Task::RebuildHistory, Task::MailProcessed}},
      {"--verbose", {Task::CatchUp, Task::MailProcessed}},
      {"--yes", {Task::CatchUp}},
      {"--pause", {Task::Run, Task::CatchUp}},
      {"--commit-every", {Task::CatchUp}},
      {"--since", {Task::MailProcessed}},
      {"--until", {Task::MailProcessed}},
  };
  for (const std::string_view option : given)
    for (const Restriction &restriction : restrictions)
      if (restriction.option == option && std::find(restriction.tasks.begin(), restriction.tasks.end(),
                                                     options.task) == restriction.tasks.end())
        return std::string(option) + " cannot go with " +
               (taskOption.empty() ? std::string("a single run") : std::string(taskOption));
  if (options.since && options.until && *options.until <= *options.since)
    return "--until is before --since";
  return options;
}

std::string usageText() {
  return "usage: parlova [--dry-run] [--pause SECONDS]\n"
         "       parlova --catch-up [--dry-run] [--yes] [--quiet | --verbose] [--pause SECONDS]\n"
         "               [--commit-every N]\n"
         "       parlova --mail-processed [--since DATE] [--until DATE] [--dry-run] [--quiet | --verbose]\n"
         "       parlova --rebuild-history [--dry-run] [--quiet]\n"
         "       parlova --rebuild-pages | --setup | --help | --version\n"
         "\n"
         "Carries finished iChat transcripts from ~/Documents/iChats through: mails them,\n"
         "gathers their links and pictures, counts them, and moves them into\n"
         "~/Documents/iChats (Parlovaed). With no options: one transcript per run.\n"
         "\n"
         "  --catch-up          every finished transcript in one run (a first run on an\n"
         "                      existing archive); no pause between entries. On a\n"
         "                      terminal it shows its plan and asks first\n"
         "  --mail-processed    mail the transcripts already in ~/Documents/iChats\n"
         "                      (Parlovaed) with today's mail settings, each once per\n"
         "                      mailbox; nothing else changes\n"
         "  --since DATE        with --mail-processed: chats begun on or after this day\n"
         "  --until DATE        with --mail-processed: chats begun up to this day\n"
         "                      (YYYY-MM-DD, local time)\n"
         "  --rebuild-history   read every processed transcript into the chat history\n"
         "                      (~/Library/Parlova/history.sqlite); run twice, it adds\n"
         "                      nothing\n"
         "  --rebuild-pages     draw every page (links, pictures, statistics, chat\n"
         "                      library) again from the archives with today's templates\n"
         "  -n, --dry-run       only say what a run would do, with which settings, and\n"
         "                      what would stop or spoil it; change nothing, send nothing\n"
         "  -y, --yes           answer the catch-up's question with yes\n"
         "  -q, --quiet         no progress line\n"
         "  -v, --verbose       a catch-up's log lines for every transcript on a terminal\n"
         "                      too\n"
         "  --pause SECONDS     pause after every entry (a run's own pause is 5 seconds)\n"
         "  --commit-every N    a catch-up writes its archives and pages after every N\n"
         "                      transcripts (default 10000) and at least once a minute\n"
         "  --setup             copy the shipped templates and word lists into\n"
         "                      ~/Library/Parlova (keeping yours), make the transcript\n"
         "                      folders, and say what to do next\n"
         "  -h, --help          this text\n"
         "  --version           the version\n"
         "\n"
         "Exit status: 0 done; 1 a catch-up, mailing or rebuild that stopped early, or a\n"
         "dry run that found a problem; 2 a command line that is not understood.\n"
         "Settings: ~/Library/Preferences/com.hollowmere.parlova.plist (parlova-defaults)\n"
         "Archives and pages: ~/Library/Parlova\n";
}

std::string versionText() { return "parlova " PARLOVA_VERSION "\n"; }

} // namespace parlova
