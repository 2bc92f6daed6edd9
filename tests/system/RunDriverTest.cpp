// The tool end to end: the walk, the judgement of open chats, the move into
// the archive folder and the settings it reads and writes.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <regex>
#include <sstream>
#include <tuple>
#include <spawn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include "driver/TranscriptJournal.h"
#include "platform/FileManager.h"
#include "tests/support/ToolTestSupport.h"

extern char **environ;

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

using Strings = std::vector<std::string>;

TEST(RunDriver, EmptyOrMissingTranscriptFolderEndsQuietlyButACatchUpSaysSo) {
  ScratchHome home;
  auto result = home.run("parlova");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  const auto catchUp = home.run("parlova", {"--catch-up"});
  EXPECT_EQ(catchUp.exitCode, 1);
  EXPECT_NE(catchUp.err.find("] There is no transcript folder " + home.chats().string()), std::string::npos)
      << catchUp.err;
  const auto dry = home.run("parlova", {"--dry-run", "--catch-up"});
  EXPECT_EQ(dry.exitCode, 1);
  EXPECT_NE(dry.out.find("problem  there is no transcript folder "), std::string::npos) << dry.out;

  fs::create_directories(home.chats());
  result = home.run("parlova");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_FALSE(fs::exists(home.archive()));
}

TEST(RunDriver, ProcessesOneFinishedTranscriptPerRunAndSkipsWhatIsNotOne) {
  ScratchHome home;
  home.addTranscript("Alice on 2005-03-01 at 10.15.ichat", simpleChat("alice"));
  home.addTranscript("Bob on 2005-03-02 at 11.00.ichat", simpleChat("bob"));
  writeText(home.chats() / "notes.txt", "not a chat");
  writeText(home.chats() / "Broken on 2005-01-01.ichat", "bplist00 but not really");
  writeText(home.chats() / "Empty on 2005-01-01.ichat", "");
  fs::create_directories(home.chats() / "Folder on 2005.ichat");
  home.addTranscript("NoDate.ichat", simpleChat("nodate"));

  auto first = home.run("parlova");
  EXPECT_EQ(first.exitCode, 0);
  EXPECT_EQ(filesBelow(home.archive()).size(), 1u) << first.err;
  EXPECT_EQ(countOccurrences(first.err, "extracting "), 1u);
  EXPECT_EQ(countOccurrences(first.err, "preparing email send "), 1u);
  EXPECT_EQ(countOccurrences(first.err, "preparing to move "), 1u);
  EXPECT_EQ(first.err.find("Error parsing"), std::string::npos) << "entries that do not load are skipped silently";

  auto second = home.run("parlova");
  EXPECT_EQ(second.exitCode, 0);
  EXPECT_EQ(filesBelow(home.archive()),
            (Strings{"Alice on 2005-03-01 at 10.15.ichat", "Bob on 2005-03-02 at 11.00.ichat"}));

  // Nothing left to do: everything that is not a transcript stays put.
  auto third = home.run("parlova");
  EXPECT_EQ(third.exitCode, 0);
  EXPECT_EQ(countOccurrences(third.err, "extracting "), 0u);
  EXPECT_EQ(filesBelow(home.chats()), (Strings{"Broken on 2005-01-01.ichat", "Empty on 2005-01-01.ichat",
                                               "NoDate.ichat", "notes.txt"}));
  EXPECT_TRUE(fs::is_directory(home.chats() / "Folder on 2005.ichat"));
}

// Folders below the transcript folder, relative to it.
Strings foldersBelow(const fs::path &root) {
  Strings folders;
  for (const auto &entry : fs::recursive_directory_iterator(root))
    if (entry.is_directory())
      folders.push_back(entry.path().lexically_relative(root).string());
  std::sort(folders.begin(), folders.end());
  return folders;
}

TEST(RunDriver, EmptyDayFoldersGoOnceTheirTranscriptsHaveLeft) {
  char today[16];
  const time_t now = time(nullptr);
  strftime(today, sizeof today, "%Y-%m-%d", localtime(&now));
  // Kept: not a day, not a day that exists, a day whose chat may be going on.
  const Strings kept = {"2005", "2005-02-30", "2005-03-05", "misc", today};
  for (const bool catchUp : {false, true}) {
    ScratchHome home;
    for (const std::string &folder : kept)
      fs::create_directories(home.chats() / folder);
    writeText(home.chats() / "2005-03-05/notes.txt", "not a chat");
    fs::create_directories(home.chats() / "2005-03-01");
    home.addTranscript("2005-03-02/Alice on 2005-03-02 at 10.15.ichat", simpleChat("alice"));
    home.addTranscript("2005/2005-03-03/Bob on 2005-03-03 at 11.00.ichat", simpleChat("bob"));

    const auto dry = home.run("parlova", {"--dry-run", "--catch-up"});
    EXPECT_NE(dry.out.find("remove   2005-03-01: an empty day folder\n"), std::string::npos) << dry.out;
    for (int run = 0; run < (catchUp ? 1 : 3); ++run)
      home.run("parlova", catchUp ? Strings{"--catch-up"} : Strings{});
    EXPECT_EQ(filesBelow(home.archive()).size(), 2u);
    Strings left = kept;
    std::sort(left.begin(), left.end());
    EXPECT_EQ(foldersBelow(home.chats()), left) << (catchUp ? "catch-up" : "single runs");
  }
}

TEST(RunDriver, LogLinesHaveTheSystemLogShapeAndExactTexts) {
  ScratchHome home;
  const auto transcript = home.addTranscript("sub/Alice on 2005-03-01.ichat", simpleChat());
  const auto result = home.run("parlova");
  const fs::path target = home.archive() / "Alice on 2005-03-01.ichat";
  const std::string expectedMove = "preparing to move " + transcript.string() + " to " + target.string();
  EXPECT_NE(result.err.find("] extracting " + transcript.string() + "\n"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("] " + expectedMove + "\n"), std::string::npos) << result.err;
  // "<date> <time> parlova[<pid>] <text>"
  const std::string firstLine = result.err.substr(0, result.err.find('\n'));
  EXPECT_TRUE(std::regex_match(firstLine, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d(\.\d+)? parlova\[\d+\] .*)")))
      << firstLine;
  EXPECT_TRUE(fs::exists(target));
}

TEST(RunDriver, ArchiveNamesPileUpTheirSuffixes) {
  ScratchHome home;
  const std::string name = "Bob on 2006-01-01";
  for (const std::string &existing : {name + ".ichat", name + " #2.ichat", name + " #2 #3.ichat"})
    writeText(home.archive() / existing, "earlier");
  home.addTranscript(name + ".ichat", simpleChat("bob"));
  home.run("parlova");
  EXPECT_EQ(filesBelow(home.archive()), (Strings{name + " #2 #3 #4.ichat", name + " #2 #3.ichat",
                                                 name + " #2.ichat", name + ".ichat"}));
  EXPECT_EQ(readText(home.archive() / (name + ".ichat")), "earlier") << "an earlier archive is never replaced";
}

// Traced with strace: every rename that commits a state follows an fsync
// of the file it puts in place (where it wrote one) and precedes an fsync
// of the folder that holds the new name.
TEST(RunDriver, EveryCommittingRenameIsOnTheDiskWithItsFolder) {
  ScratchHome home;
  installShippedFiles(home);
  home.setSetting("handleURLs", "-bool", "YES");
  home.setSetting("handleImages", "-bool", "YES");
  home.addTranscript("Alice on 2005-03-01.ichat", simpleChat());
  const fs::path trace = home.path() / "trace";
  const std::string command = "HOME='" + home.path().string() + "' PARLOVA_PAUSE_SECONDS=0 strace -f -y -qq -o '" +
                              trace.string() + "' -e trace=fsync,rename,renameat2 '" PARLOVA_BINARY_DIR
                              "/parlova' 2>/dev/null";
  if (std::system(command.c_str()) != 0 || !fs::exists(trace))
    GTEST_SKIP() << "strace is not available";
  std::vector<std::string> calls;
  std::istringstream lines(readText(trace));
  for (std::string line; std::getline(lines, line);)
    if (line.find("= 0") != std::string::npos)
      calls.push_back(line);
  const std::regex renamed(R"re((rename|renameat2)\((?:AT_FDCWD(?:<[^>]*>)?, )?"([^"]+)", (?:AT_FDCWD(?:<[^>]*>)?, )?"([^"]+)")re");
  size_t checked = 0;
  for (size_t i = 0; i < calls.size(); ++i) {
    std::smatch match;
    if (!std::regex_search(calls[i], match, renamed))
      continue;
    const fs::path from = match[2].str(), to = match[3].str();
    if (from.filename().string().starts_with(".parlova-tmp-")) {
      EXPECT_TRUE(i > 0 && calls[i - 1].find("fsync(") != std::string::npos &&
                  calls[i - 1].find("<" + from.string() + ">") != std::string::npos)
          << calls[i] << "\nafter\n" << (i > 0 ? calls[i - 1] : "");
    }
    EXPECT_TRUE(i + 1 < calls.size() && calls[i + 1].find("fsync(") != std::string::npos &&
                calls[i + 1].find("<" + to.parent_path().string() + ">") != std::string::npos)
        << calls[i] << "\nbefore\n" << (i + 1 < calls.size() ? calls[i + 1] : "");
    ++checked;
  }
  EXPECT_GE(checked, 6u) << "settings, journal, archives, pages and the move";
  EXPECT_TRUE(fs::exists(home.archive() / "Alice on 2005-03-01.ichat"));
}

TEST(RunDriver, ARunThatFindsAnotherUnderWayEndsAtOnce) {
  ScratchHome home;
  const auto transcript = home.addTranscript("Alice on 2005-03-01.ichat", simpleChat());
  const fs::path lockFile = home.path() / "Library" / "Parlova" / ".parlova.lock";
  fs::create_directories(lockFile.parent_path());
  const int fd = open(lockFile.c_str(), O_RDWR | O_CREAT, 0644);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  auto result = home.run("parlova");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_NE(result.err.find("] Another run of parlova is under way; this one ends.\n"), std::string::npos)
      << result.err;
  EXPECT_EQ(countOccurrences(result.err, "\n"), 1u);
  EXPECT_TRUE(fs::exists(transcript));

  close(fd); // as when the other run ends, however it ends
  result = home.run("parlova");
  EXPECT_FALSE(fs::exists(transcript)) << result.err;
}

TEST(RunDriver, ATranscriptReachedThroughARelativeLinkStillResolvesOnceMoved) {
  ScratchHome home;
  const fs::path kept = home.path() / "Elsewhere" / "Alice on 2005-03-01.ichat";
  samples::writeFile(kept, samples::keyedTranscript(simpleChat()));
  fs::create_directories(home.chats());
  fs::create_symlink("../../Elsewhere/Alice on 2005-03-01.ichat", home.chats() / "Alice on 2005-03-01.ichat");
  home.run("parlova");
  const fs::path moved = home.archive() / "Alice on 2005-03-01.ichat";
  EXPECT_TRUE(fs::is_symlink(fs::symlink_status(moved)));
  EXPECT_TRUE(fs::exists(moved)) << "resolves: " << fs::read_symlink(moved);
  EXPECT_FALSE(fs::exists(fs::symlink_status(home.chats() / "Alice on 2005-03-01.ichat")));
}

TEST(RunDriver, AHomeThatDoesNotExistOrIsAnotherUsersIsRefused) {
  ScratchHome home;
  const fs::path missing = home.path() / "gone";
  auto result = home.run("parlova", {}, {{"HOME", missing.string()}});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, "parlova: the home folder " + missing.string() + " does not exist; nothing is done\n");
  EXPECT_FALSE(fs::exists(missing));

  // Root's run through sudo, with the user's HOME: it would leave files the
  // user's own runs cannot use.
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root to give the home to another user";
  ASSERT_EQ(chown(home.path().c_str(), 65534, 65534), 0);
  home.addTranscript("Alice on 2005-03-01.ichat", simpleChat());
  const std::string foreign = "the home folder " + home.path().string() + " belongs to nobody, not to root, who runs this";
  const std::string defaults = "parlova-defaults: " + foreign + "; nothing is written (run parlova-defaults as nobody)\n";
  for (const auto &[tool, arguments, said] : std::vector<std::tuple<std::string, std::vector<std::string>, std::string>>{
           {"parlova", {"--catch-up"}, "parlova: " + foreign + "; nothing is done (run parlova as nobody)\n"},
           {"parlova-defaults", {"write", "com.hollowmere.parlova", "sendEmails", "-bool", "YES"}, defaults},
           {"parlova-defaults", {"delete", "com.hollowmere.parlova"}, defaults}}) {
    result = home.run(tool, arguments);
    EXPECT_EQ(result.exitCode, 1) << tool;
    EXPECT_EQ(result.err, said);
  }
  EXPECT_FALSE(fs::exists(home.path() / "Library"));
}

TEST(RunDriver, ARunThatDiedHalfWayIsUndoneOrFinished) {
  ScratchHome home;
  home.setSetting("handleURLs", "-bool", "YES");
  const fs::path folder = home.path() / "Library" / "Parlova";
  const auto alice = home.addTranscript("Alice on 2005-03-01.ichat", simpleChat("alice"));
  home.run("parlova");
  const std::string links = readText(folder / "gatheredURLs.plist");
  const std::string totals = readText(folder / "chatgeist.plist");

  // Stopped while archiving Bob: the journal had kept the archives, then
  // the stages changed them. The totals are a link to a file elsewhere,
  // which is kept as well.
  fs::rename(folder / "chatgeist.plist", home.path() / "totals.plist");
  fs::create_symlink(home.path() / "totals.plist", folder / "chatgeist.plist");
  const auto bob = home.addTranscript("Bob on 2005-03-02.ichat", simpleChat("bob"));
  ASSERT_TRUE(TranscriptJournal(folder).begin(bob));
  // As the stages write: a new file renamed over the old one.
  const auto replace = [](const fs::path &path, std::string_view text) {
    ASSERT_TRUE(writeFileAtomically(path, std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size())));
  };
  replace(folder / "gatheredURLs.plist", "half-way");
  replace(folder / "chatgeist.plist", "half-way");
  replace(folder / "gatheredImages.plist", "made half-way");
  writeText(folder / ".parlova-tmp-1234", "a write cut short");
  home.setSetting("handleURLs", "-bool", "NO"); // so that only the undoing shows in the link archive
  auto result = home.run("parlova");
  EXPECT_NE(result.err.find("] A run ended while archiving " + bob.string() +
                            "; the archives are back as they were before it.\n"),
            std::string::npos)
      << result.err;
  EXPECT_FALSE(fs::exists(folder / ".journal"));
  EXPECT_FALSE(fs::exists(folder / ".parlova-tmp-1234"));
  EXPECT_FALSE(fs::exists(folder / "gatheredImages.plist"));
  EXPECT_EQ(readText(folder / "gatheredURLs.plist"), links);
  EXPECT_FALSE(fs::exists(bob)) << "then processed afresh";
  EXPECT_NE(readText(folder / "chatgeist.plist").find("<key>chatcount</key>\n\t<integer>2</integer>"),
            std::string::npos);

  // Stopped between the last stage and the move: only the move is left.
  const auto carol = home.addTranscript("Carol on 2005-03-03.ichat", simpleChat("carol"));
  const std::string after = readText(folder / "chatgeist.plist");
  const fs::path target = home.archive() / "Carol on 2005-03-03.ichat";
  TranscriptJournal journal(folder);
  ASSERT_TRUE(journal.begin(carol));
  ASSERT_TRUE(journal.markArchived(target));
  result = home.run("parlova");
  EXPECT_NE(result.err.find("] A run ended before moving " + carol.string() + "; moving it now.\n"),
            std::string::npos)
      << result.err;
  EXPECT_TRUE(fs::exists(target));
  EXPECT_FALSE(fs::exists(carol));
  EXPECT_EQ(readText(folder / "chatgeist.plist"), after) << "counted once";
  EXPECT_FALSE(fs::exists(folder / ".journal"));

  // A transcript changed since it was archived is not moved: a later run
  // sees it afresh.
  const auto dave = home.addTranscript("Dave on 2005-03-04.ichat", simpleChat("dave"));
  TranscriptJournal changed(folder);
  ASSERT_TRUE(changed.begin(dave));
  ASSERT_TRUE(changed.markArchived(home.archive() / "Dave on 2005-03-04.ichat"));
  home.addTranscript("Dave on 2005-03-04.ichat", simpleChat("dave and more"));
  result = home.run("parlova");
  EXPECT_EQ(result.err.find("A run ended before moving"), std::string::npos) << result.err;
  EXPECT_FALSE(fs::exists(folder / ".journal"));

  // A journal left by an earlier version knows a transcript by its size
  // and FNV-1a digest, whole: read a stretch at a time, a transcript of
  // several stretches is known by the same key, as a reader outside says.
  std::string bytes(200001, '\0');
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>((i * 7919) >> 3);
  const fs::path large = home.path() / "large.chat";
  writeText(large, bytes);
  const auto read = TranscriptJournal::identify(large);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->key(),
            TranscriptJournal::identityOf(std::span(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size())).key());
  EXPECT_EQ(read->key(), pythonReading("import sys\n"
                                       "data = open(sys.argv[1], 'rb').read()\n"
                                       "h = 0xcbf29ce484222325\n"
                                       "for b in data: h = ((h ^ b) * 0x100000001b3) & 0xFFFFFFFFFFFFFFFF\n"
                                       "print(f'{len(data)}.{h:016x}', end='')\n",
                                       large));
}

TEST(RunDriver, StandingErrorStatusStopsBeforeAnythingMoves) {
  ScratchHome home;
  home.setSetting("errorStatus", "-int", "2");
  home.setSetting("emailFails", "-int", "3");
  const auto transcript = home.addTranscript("Alice on 2005-03-01.ichat", simpleChat());
  const auto result = home.run("parlova");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_NE(result.err.find("] an error has occurred while emailing?\n"), std::string::npos) << result.err;
  EXPECT_TRUE(fs::exists(transcript));
  EXPECT_EQ(home.readSetting("emailFails"), "3");
}

TEST(RunDriver, ProcessedTranscriptResetsEmailFails) {
  ScratchHome home;
  home.setSetting("emailFails", "-int", "2");
  home.setSetting("sendEmails", "-bool", "NO");
  home.addTranscript("Alice on 2005-03-01.ichat", simpleChat());
  home.run("parlova");
  EXPECT_EQ(home.readSetting("emailFails"), "0");
  EXPECT_EQ(home.readSetting("sendEmails"), "0") << "other settings survive the write";
}

TEST(RunDriver, OnlyDebugModeTwoLogsEachEntry) {
  for (const std::string &mode : {std::string("1"), std::string("2"), std::string("3")}) {
    ScratchHome home;
    home.setSetting("debugMode", "-int", mode);
    home.addTranscript("Alice on 2005-03-01.ichat", simpleChat());
    const auto result = home.run("parlova");
    EXPECT_EQ(countOccurrences(result.err, "] Processing Alice on 2005-03-01.ichat\n"), mode == "2" ? 1u : 0u)
        << "debugMode " << mode;
  }
}

std::string openChatScriptFor(const std::string &name) {
  return "tell application \"iChat\"\n copy documents to foo\n\trepeat with i from 1 to number of items in foo\n"
         " if name of item i of foo is \"Chatting with " + name + " et al.\" or name of item i of foo is \"Instant "
         "Messages with " + name + "\" or name of item i of foo is \"Chatting with " + name +
         "\" or name of item i of foo is \"Chat with " + name + "\" then \n return yes\nend if\nend repeat\n"
         "return no\nend tell";
}

TEST(RunDriver, WithIChatRunningAsksAboutTheBuddyFromTheEntryNameAndThenTheOtherParty) {
  ScratchHome home;
  FakeIChat iChat(home.path());
  home.addTranscript("old/Dinner \"on\" on Friday on 2006-01-01.ichat", simpleChat());
  const auto result = home.run("parlova", {}, fakeOsascript(home, "no"));
  EXPECT_EQ(result.exitCode, 0);
  const auto scripts = filesBelow(home.path() / "scripts");
  ASSERT_EQ(scripts.size(), 2u) << result.err;
  // The walk asks by the entry (folder part kept), the pipeline by the
  // transcript's other party; both escape the quotes.
  EXPECT_EQ(readText(home.path() / "scripts" / "0.applescript"), openChatScriptFor("old/Dinner \\\"on\\\" on Friday"));
  EXPECT_EQ(readText(home.path() / "scripts" / "1.applescript"), openChatScriptFor("Dinner \\\"on\\\" on Friday"));
  EXPECT_EQ(filesBelow(home.archive()).size(), 1u);
}

TEST(RunDriver, AnOpenChatStaysAndTheWalkGoesOn) {
  for (const std::string answer : {"yes", ""}) {
    ScratchHome home;
    FakeIChat iChat(home.path());
    home.setSetting("debugMode", "-int", "2");
    home.addTranscript("Alice on 2006-01-01.ichat", simpleChat());
    home.addTranscript("Bob on 2006-01-02.ichat", simpleChat("bob"));
    const auto result = home.run("parlova", {}, fakeOsascript(home, answer));
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_FALSE(fs::exists(home.archive())) << "answer '" << answer << "': " << result.err;
    EXPECT_EQ(countOccurrences(result.err, "incomplete log that will be finished later- don't send"), 2u) << result.err;
  }
}

TEST(RunDriver, WithoutIChatNoScriptRuns) {
  ScratchHome home;
  home.addTranscript("Alice on 2006-01-01.ichat", simpleChat());
  home.run("parlova", {}, fakeOsascript(home, "yes"));
  EXPECT_FALSE(fs::exists(home.path() / "scripts"));
  EXPECT_EQ(filesBelow(home.archive()).size(), 1u);
}

TEST(RunDriver, GroupChatsAreOverOnlyWhenIChatShowsNoChatAtAll) {
  for (const auto &[documents, processed] : std::vector<std::pair<std::string, bool>>{{"0", true}, {"1", false}, {"", false}}) {
    ScratchHome home;
    FakeIChat iChat(home.path());
    auto group = simpleChat("alice");
    group.others.push_back({"AIM", "bob"});
    home.addTranscript("alice on 2006-01-01.ichat", group);
    // The walk's own question says the window is closed; the pipeline asks
    // about documents for a group chat.
    const auto result = home.run("parlova", {}, fakeOsascript(home, "no", documents));
    EXPECT_NE(result.err.find("] multiparty chat, checking documents\n"), std::string::npos) << result.err;
    EXPECT_EQ(fs::exists(home.archive() / "alice on 2006-01-01.ichat"), processed) << "documents " << documents;
    EXPECT_EQ(readText(home.path() / "scripts" / "1.applescript"), "tell application \"iChat\" to get the number of documents");
  }
}

} // namespace
} // namespace parlova::testing
