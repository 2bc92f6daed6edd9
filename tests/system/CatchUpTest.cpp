// A backlog in one run: the same end as single runs however it is stopped,
// a command line that runs nothing by mistake, and a dry run that changes
// nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "driver/TranscriptJournal.h"
#include "driver/TranscriptPrefetch.h"
#include "mail/MailboxMessage.h"
#include "samples/Backlog.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

// Every file of a home by path, with its bytes; the lock file is the one
// thing a run leaves that says nothing.
std::map<std::string, std::string> everyFile(const ScratchHome &home) {
  std::map<std::string, std::string> files;
  for (const std::string &name : filesBelow(home.path()))
    if (!name.ends_with(".parlova.lock"))
      files[name] = readText(home.path() / name);
  return files;
}

// A home with the backlog, the shipped files, links and pictures on, and
// totals that already have a start date (otherwise the time of the first
// run would be in them).
void prepare(const ScratchHome &home, size_t transcripts) {
  samples::writeBacklog(home.chats(), {.transcripts = transcripts, .seed = 5, .people = 40, .longestChat = 300});
  installShippedFiles(home);
  writeText(home.path() / "Library/Parlova/chatgeist.plist",
            R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
            R"(<key>chatcount</key><integer>0</integer><key>startDate</key><date>2003-07-01T12:00:00Z</date>)"
            R"(</dict></plist>)");
  home.setSetting("handleURLs", "-bool", "YES");
  home.setSetting("handleImages", "-bool", "YES");
}

void expectSameHomes(const ScratchHome &expected, const ScratchHome &actual, const std::string &what) {
  const auto want = everyFile(expected);
  const auto got = everyFile(actual);
  for (const auto &[name, bytes] : want) {
    const auto it = got.find(name);
    if (it == got.end())
      ADD_FAILURE() << what << ": missing " << name;
    else if (it->second != bytes)
      ADD_FAILURE() << what << ": differs " << name;
  }
  for (const auto &[name, bytes] : got)
    EXPECT_TRUE(want.count(name)) << what << ": extra " << name;
}

// parlova --catch-up ARGS in `home`, stopped with `signal` after `after`.
ToolResult stoppedCatchUp(const ScratchHome &home, const std::vector<std::string> &arguments, int signal,
                          std::chrono::milliseconds after) {
  int errPipe[2];
  EXPECT_EQ(pipe(errPipe), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(errPipe[1], STDERR_FILENO);
    close(errPipe[0]);
    setenv("HOME", home.path().c_str(), 1);
    setenv("PARLOVA_PAUSE_SECONDS", "0", 1);
    std::vector<std::string> words = {PARLOVA_BINARY_DIR "/parlova", "--catch-up"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (auto &word : words)
      argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(errPipe[1]);
  std::this_thread::sleep_for(after);
  kill(pid, signal);
  ToolResult result;
  char buffer[4096];
  for (ssize_t n; (n = read(errPipe[0], buffer, sizeof buffer)) > 0;)
    result.err.append(buffer, static_cast<size_t>(n));
  close(errPipe[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

TEST(CatchUp, EndsWhereSingleRunsEndWhetherWholeInBatchesOrStoppedAndResumed) {
  constexpr size_t kTranscripts = 220;
  ScratchHome singles;
  prepare(singles, kTranscripts);
  for (size_t run = 0; run < kTranscripts + 5 && !filesBelow(singles.chats()).empty(); ++run)
    ASSERT_EQ(singles.run("parlova").exitCode, 0);
  ASSERT_EQ(filesBelow(singles.chats()), std::vector<std::string>{"notes.txt"});
  ASSERT_EQ(filesBelow(singles.archive()).size(), kTranscripts);

  ScratchHome whole;
  prepare(whole, kTranscripts);
  const auto result = whole.run("parlova", {"--catch-up", "--commit-every", "37"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_NE(result.err.find("] Catch-up finished: 220 processed, 0 left open, 0 did not load, 0 mailed, "),
            std::string::npos)
      << result.err.substr(result.err.size() > 400 ? result.err.size() - 400 : 0);
  EXPECT_EQ(countOccurrences(result.err, "] preparing to move "), kTranscripts);
  EXPECT_EQ(result.err.find('\r'), std::string::npos) << "no progress line off a terminal";
  expectSameHomes(singles, whole, "one catch-up");

  ScratchHome resumed;
  prepare(resumed, kTranscripts);
  const auto stopped = stoppedCatchUp(resumed, {"--pause", "0.01", "--commit-every", "16"}, SIGTERM,
                                      std::chrono::milliseconds(1200));
  EXPECT_EQ(stopped.exitCode, 1);
  EXPECT_NE(stopped.err.find("] Catch-up stopped (asked to stop): "), std::string::npos) << stopped.err;
  const size_t moved = filesBelow(resumed.archive()).size();
  EXPECT_GT(moved, 0u);
  EXPECT_LT(moved, kTranscripts) << "stopped too late to show anything";
  EXPECT_EQ(resumed.run("parlova", {"--catch-up"}).exitCode, 0);
  expectSameHomes(singles, resumed, "stopped and resumed");
}

// The next transcript is read ahead, before its chat is judged over; a file
// that changed since counts with its new bytes, and the mail made ahead is
// the one the transcript's own bytes name.
TEST(CatchUp, ATranscriptReadAheadAndChangedSinceIsReadAgain) {
  ScratchHome home;
  const auto made = samples::writeBacklog(home.chats(), {.transcripts = 8, .seed = 9, .people = 2, .longestChat = 40});
  const fs::path first = home.chats() / made[0];
  const auto other = std::find_if(made.begin() + 1, made.end(), [&](const fs::path &each) {
    return each.extension() == first.extension();
  });
  ASSERT_NE(other, made.end());
  const std::string before = readText(first), after = readText(home.chats() / *other);
  ASSERT_NE(before, after);
  const auto keyOf = [](const std::string &bytes) {
    return TranscriptJournal::identityOf(std::span(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size())).key();
  };
  TranscriptPrefetch::MailAhead mail;
  mail.compose = true;
  mail.to = "me@example.org";
  for (const bool changed : {false, true}) {
    writeText(first, before);
    TranscriptPrefetch prefetch;
    prefetch.ask(first, mail, fs::file_size(first));
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // read by then
    if (changed)
      writeText(first, after);
    const TranscriptPrefetch::Prepared prepared = prefetch.take(first);
    const std::string key = keyOf(changed ? after : before);
    EXPECT_EQ(prepared.contentKey, key) << "changed: " << changed;
    EXPECT_TRUE(std::holds_alternative<ICLPChatLog>(prepared.loaded));
    // Made again without its mail, which the delivery then makes itself.
    ASSERT_EQ(prepared.mail.has_value(), !changed);
    if (prepared.mail) {
      EXPECT_EQ(prepared.mail->name, std::string(MailboxMessage::kNamePrefix) + key);
    }
  }
}

// Transcripts are asked for ahead while count and bytes allow. One not asked
// for (too large to be held ahead) is made on the spot, without its mail,
// and those asked after it are still made ahead, with theirs.
TEST(CatchUp, TranscriptsAskedAheadAreBoundedAndOutliveOneMadeOnTheSpot) {
  ScratchHome home;
  const auto made = samples::writeBacklog(home.chats(), {.transcripts = 4, .seed = 5, .people = 2, .longestChat = 20});
  TranscriptPrefetch::MailAhead mail;
  mail.compose = true;
  mail.to = "me@example.org";
  {
    TranscriptPrefetch prefetch;
    for (const size_t asked : {0, 2, 3})
      prefetch.ask(home.chats() / made[asked], mail, fs::file_size(home.chats() / made[asked]));
    for (size_t each = 0; each < made.size(); ++each) {
      const TranscriptPrefetch::Prepared prepared = prefetch.take(home.chats() / made[each]);
      EXPECT_TRUE(std::holds_alternative<ICLPChatLog>(prepared.loaded)) << each;
      EXPECT_EQ(prepared.mail.has_value(), each != 1) << each;
    }
  }
  constexpr uintmax_t kBound = TranscriptPrefetch::kMostBytesAhead;
  TranscriptPrefetch prefetch;
  EXPECT_TRUE(prefetch.hasRoomFor(kBound));
  EXPECT_FALSE(prefetch.hasRoomFor(kBound + 1));
  prefetch.ask(home.path() / "gone-0.chat", {}, kBound / 2);
  EXPECT_TRUE(prefetch.hasRoomFor(kBound / 2));
  EXPECT_FALSE(prefetch.hasRoomFor(kBound / 2 + 1));
  for (size_t more = 1; more < TranscriptPrefetch::kMostAhead; ++more)
    prefetch.ask(home.path() / ("gone-" + std::to_string(more) + ".chat"), {}, 0);
  EXPECT_FALSE(prefetch.hasRoomFor(0));
  EXPECT_FALSE(prefetch.take(home.path() / "gone-0.chat").readable);
  EXPECT_TRUE(prefetch.hasRoomFor(kBound - 1));
}

TEST(CatchUp, AStandingErrorOrUndeliverableMailStopsTheBatchBeforeAnythingIsArchived) {
  for (const bool standingError : {true, false}) {
    ScratchHome home;
    home.addTranscript("Alice on 2005-03-01 at 10.15.ichat", simpleChat("alice"));
    home.addTranscript("Bob on 2005-03-02 at 11.00.ichat", simpleChat("bob"));
    if (standingError)
      home.setSetting("errorStatus", "-int", "2");
    else
      home.mailTo("1"); // nothing listens there
    const auto result = home.run("parlova", {"--catch-up"});
    EXPECT_EQ(result.exitCode, 1);
    const std::string why = standingError ? "] an error has occurred while emailing?\n"
                                          : "] Unable to connect to mail server.\n";
    EXPECT_EQ(countOccurrences(result.err, why), 1u) << result.err;
    EXPECT_NE(result.err.find(standingError ? "] Catch-up stopped (an email error stands (errorStatus)): 0 processed"
                                            : "] Catch-up stopped (the mail could not be delivered): 0 processed"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(filesBelow(home.chats()).size(), 2u);
    EXPECT_FALSE(fs::exists(home.path() / "Library/Parlova/chatgeist.plist"));
  }
}

// parlova --catch-up ARGS on a terminal (through script(1)), `typed` its
// input: what it shows.
std::string onATerminal(const ScratchHome &home, const std::string &arguments, const std::string &typed = "") {
  const std::string command = "printf '" + typed + "' | HOME='" + home.path().string() +
                              "' PARLOVA_PAUSE_SECONDS=0 script -qec \"'" + PARLOVA_BINARY_DIR +
                              "/parlova' --catch-up " + arguments + "\" /dev/null";
  std::string screen;
  if (FILE *pipe = popen(command.c_str(), "r")) {
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
      screen.append(buffer, n);
    pclose(pipe);
  }
  return screen;
}

TEST(CatchUp, OnATerminalAsksFirstAndShowsItsProgressUnlessQuiet) {
  ScratchHome home;
  samples::writeBacklog(home.chats(), {.transcripts = 12, .seed = 3, .people = 5, .longestChat = 20});
  const std::string refused = onATerminal(home, "", "n\\n");
  EXPECT_NE(refused.find("mail     off (sendEmails)"), std::string::npos) << refused;
  EXPECT_NE(refused.find("Carry 12 transcripts through with mail off? [y/N] "), std::string::npos) << refused;
  EXPECT_NE(refused.find("] Catch-up not begun; nothing was done."), std::string::npos) << refused;
  EXPECT_FALSE(fs::exists(home.archive()));

  const std::string shown = onATerminal(home, "--pause 0.02", "y\\n");
  EXPECT_TRUE(std::regex_search(shown, std::regex("\r\x1b\\[K11/12  [0-9.]+/s  [0-9]+:[0-9][0-9] left  [^\r\n]+chat")))
      << shown;
  EXPECT_NE(shown.find("] Catch-up finished: 12 processed"), std::string::npos);
  EXPECT_FALSE(std::regex_search(shown, std::regex("left  [^\n\x1b]*parlova\\[")))
      << "a log line is written over the progress line, never after it";
  EXPECT_TRUE(std::regex_search(shown, std::regex("\n[0-9]+/12  "))) << "and the line is drawn again below it";
  EXPECT_EQ(shown.find("] extracting "), std::string::npos) << "each transcript's lines only with --verbose";

  ScratchHome quiet;
  samples::writeBacklog(quiet.chats(), {.transcripts = 12, .seed = 3, .people = 5, .longestChat = 20});
  const std::string quietly = onATerminal(quiet, "--quiet --verbose --yes");
  EXPECT_EQ(quietly.find("\x1b[K"), std::string::npos) << quietly;
  EXPECT_EQ(quietly.find("[y/N]"), std::string::npos) << quietly;
  EXPECT_EQ(countOccurrences(quietly, "] extracting "), 12u) << quietly;
  EXPECT_NE(quietly.find("] Catch-up finished: 12 processed"), std::string::npos) << quietly;
}

TEST(CatchUp, HelpVersionAndBadArgumentsRunNothing) {
  ScratchHome home;
  home.addTranscript("Alice on 2005-03-01 at 10.15.ichat", simpleChat("alice"));

  const auto help = home.run("parlova", {"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_EQ(help.err, "");
  const std::string manPage = readText(fs::path(PARLOVA_SOURCE_DIR) / "man" / "parlova.1");
  for (const std::string option : {"--catch-up", "--dry-run", "--quiet", "--pause", "--commit-every", "--help",
                                   "--version", "--mail-processed", "--since", "--until", "--rebuild-pages", "--yes",
                                   "--verbose"}) {
    EXPECT_NE(help.out.find(option), std::string::npos) << option;
    EXPECT_NE(manPage.find(std::regex_replace(option, std::regex("-"), "\\-")), std::string::npos) << option;
  }
  EXPECT_NE(help.out.find("com.hollowmere.parlova.plist"), std::string::npos);

  const auto version = home.run("parlova", {"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_TRUE(std::regex_match(version.out, std::regex("parlova [0-9]+\\.[0-9]+.*\n"))) << version.out;

  for (const std::vector<std::string> &bad :
       {std::vector<std::string>{"--catchup"}, {"stray"}, {"--pause", "soon"}, {"--quiet=yes"}, {"--commit-every"},
        {"--setup", "--catch-up"}, {"--dry-run", "--setup"}, {"--yes"}, {"--rebuild-pages", "--commit-every", "5"},
        {"--mail-processed", "--until", "2005-02-30"}, {"--mail-processed", "--since=2006-01-01", "--until=2005-12-31"},
        {"--since", "2005-01-01"}}) {
    const auto result = home.run("parlova", bad);
    EXPECT_EQ(result.exitCode, 2) << bad.front();
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(std::regex_match(result.err, std::regex("parlova: [^\n]* \\(try --help\\)\n"))) << result.err;
  }
  EXPECT_EQ(filesBelow(home.path()),
            (std::vector<std::string>{"Documents/iChats/Alice on 2005-03-01 at 10.15.ichat"}))
      << "nothing ran: no settings, no archives, no lock";
}

TEST(CatchUp, DryRunShowsThePlanAndWhatARunWouldRefuseAndChangesNothing) {
  ScratchHome home;
  home.addTranscript("alice on 2005-03-01 at 10.15.ichat", simpleChat("alice"));
  home.addTranscript("carol on 2005-03-03 at 09.00.ichat", simpleChat("carol"));
  writeText(home.chats() / "Broken on 2005-01-01.ichat", "bplist00 but not really");
  home.setSetting("sendEmails", "-bool", "YES");
  home.setSetting("emailDelivery", "-string", "maildir");
  home.setSetting("handleURLs", "-bool", "YES");
  const fs::path osascript = home.path() / "osascript";
  // iChat has a window open with carol only.
  writeText(osascript, "#!/bin/sh\nif grep -q 'Chat with carol\"' ; then echo yes; else echo no; fi\n");
  fs::permissions(osascript, fs::perms::owner_all);
  FakeIChat iChat(home.path());
  const auto before = everyFile(home);

  const auto all = home.run("parlova", {"--dry-run", "--catch-up"}, {{"PARLOVA_OSASCRIPT", osascript.string()}});
  EXPECT_EQ(all.exitCode, 1) << "a problem is found";
  std::vector<std::string> lines;
  std::istringstream out(all.out);
  for (std::string line; std::getline(out, line);)
    lines.push_back(line);
  // The walk's order is the file system's.
  if (lines.size() > 9)
    std::sort(lines.end() - 4, lines.end() - 1);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "mail     on (sendEmails): maildir into " + (home.path() / "Maildir/.Chats").string() +
                           ", from ? to ?",
                       "links    on (handleURLs)",
                       "pictures off (handleImages)",
                       "history  off (keepHistory)",
                       "library  off (keepChatPages)",
                       "problem  emailAddress is not set (the address the mail goes to)",
                       "problem  emailOutgoing is not set (the address the mail comes from)",
                       "note     no page templates in " + (home.path() / "Library/Parlova").string() +
                           ", so no pages are made; parlova --setup puts them there",
                       "leave    Broken on 2005-01-01.ichat: does not load: not a property list, binary or XML",
                       "leave    carol on 2005-03-03 at 09.00.ichat: the chat is still open",
                       "process  alice on 2005-03-01 at 10.15.ichat",
                       "1 to process, 2 to leave",
                   }));
  const auto one = home.run("parlova", {"--dry-run"}, {{"PARLOVA_OSASCRIPT", osascript.string()}});
  EXPECT_EQ(countOccurrences(one.out, "process  "), 1u) << "a run processes one transcript";
  EXPECT_EQ(everyFile(home), before) << "a dry run changes nothing";
  EXPECT_FALSE(fs::exists(home.path() / "Library/Parlova/.parlova.lock"));

  // The runs refuse before anything is touched, and say why where the
  // settings pane shows it, until it is put right.
  for (const std::vector<std::string> &arguments : {std::vector<std::string>{}, {"--catch-up"}}) {
    const auto refused = home.run("parlova", arguments, {{"PARLOVA_OSASCRIPT", osascript.string()}});
    EXPECT_EQ(refused.exitCode, arguments.empty() ? 0 : 1);
    EXPECT_EQ(home.readSetting("reportThis"), "Mail settings: emailAddress is not set (the address the mail goes "
                                              "to); emailOutgoing is not set (the address the mail comes from)");
    EXPECT_EQ(filesBelow(home.chats()).size(), 3u);
  }
  home.setSetting("emailAddress", "-string", "me@example.org");
  home.setSetting("emailOutgoing", "-string", "parlova@example.org");
  EXPECT_EQ(home.run("parlova", {"--dry-run"}, {{"PARLOVA_OSASCRIPT", osascript.string()}}).exitCode, 0);
  EXPECT_EQ(home.run("parlova", {}, {{"PARLOVA_OSASCRIPT", osascript.string()}}).exitCode, 0);
  EXPECT_EQ(home.readSetting("reportThis"), "(absent)");
  EXPECT_EQ(filesBelow(home.chats()).size(), 2u);

  // A screen name went into the file's name: shown, not sent, on a terminal.
  home.addTranscript("eve\x1b]0;owned\x07 on 2005-03-04 at 09.00.ichat", simpleChat("eve"));
  const auto named = home.run("parlova", {"--dry-run", "--catch-up"}, {{"PARLOVA_OSASCRIPT", osascript.string()}});
  EXPECT_NE(named.out.find("process  eve"), std::string::npos) << named.out;
  EXPECT_EQ(named.out.find('\x1b'), std::string::npos) << named.out;
}

} // namespace
} // namespace parlova::testing
