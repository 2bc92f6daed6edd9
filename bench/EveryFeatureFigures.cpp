// A catch-up as a new user runs it, with every feature on (mail into a
// Maildir, links, pictures, the history, the chat library): against its
// floor (decoding every transcript once, writing every final output once
// with one flush at the end) and against the same catch-up with the
// defaults. And the memory one run takes for a transcript of 65 MB,
// loaded, rendered, mailed and archived.
#include <cstdio>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include "bench/JudgedFigures.h"
#include "platform/FileManager.h"
#include "samples/Backlog.h"
#include "samples/TranscriptWriter.h"

namespace parlova::bench {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

const std::vector<std::vector<std::string>> kMailIntoAMaildir = {{"sendEmails", "-bool", "YES"},
                                                                  {"emailDelivery", "maildir"},
                                                                  {"emailAddress", "me@example.org"},
                                                                  {"emailOutgoing", "parlova@example.org"}};

// What one run of the long transcript does beyond decoding it.
enum class Features { MailAlone, MailAndLinks, Everything };

// Mail into a Maildir; links and pictures are on by default, and off for
// the mail alone; with every feature the history and the chat library too.
fs::path withFeatures(const fs::path &home, const fs::path &binaryDir, Features features) {
  std::vector<std::vector<std::string>> settings = kMailIntoAMaildir;
  if (features == Features::Everything)
    settings.insert(settings.end(), {{"keepHistory", "-bool", "YES"}, {"keepChatPages", "-bool", "YES"}});
  if (features == Features::MailAlone)
    settings.insert(settings.end(), {{"handleURLs", "-bool", "NO"}, {"handleImages", "-bool", "NO"}});
  for (auto setting : settings) {
    setting.insert(setting.begin(), {(binaryDir / "parlova-defaults").string(), "write", "com.hollowmere.parlova"});
    runIn(home, setting);
  }
  std::vector<std::string> maildir = {(binaryDir / "parlova-defaults").string(), "write", "com.hollowmere.parlova",
                                      "emailMaildir", (home / "Maildir").string()};
  runIn(home, maildir);
  return home;
}

// Every file a feature beyond the defaults made (the mail, the chat pages,
// the history), written once more beside them, then one flush.
double writeEveryOtherOutputOnce(const fs::path &home, const fs::path &scratch) {
  const auto start = Clock::now();
  size_t written = 0;
  for (const fs::path &made : {home / "Maildir", home / "Library/Parlova/Chats", home / "Library/Parlova/history.sqlite"}) {
    if (fs::is_regular_file(made)) {
      if (const auto bytes = readFileContents(made))
        writeFileAtomically(scratch / made.filename(), *bytes, Durability::ByNextSync);
      continue;
    }
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(made, error); !error && it != fs::recursive_directory_iterator();
         it.increment(error)) {
      if (!it->is_regular_file())
        continue;
      const fs::path copy = scratch / fs::relative(it->path(), home);
      fs::create_directories(copy.parent_path());
      if (const auto bytes = readFileContents(it->path()))
        written += writeFileAtomically(copy, *bytes, Durability::ByNextSync);
    }
  }
  syncFileSystemOf(scratch);
  if (written == 0)
    std::printf("(the catch-up with every feature made no mail or pages: the floor means little)\n");
  return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

void printEveryFeature(const fs::path &binaryDir) {
  constexpr size_t kDecade = 10000;
  const fs::path root = fs::temp_directory_path() / ("parlova-every-feature-" + std::to_string(getpid()));
  const fs::path backlog = root / "backlog";
  const std::vector<fs::path> transcripts = samples::writeBacklog(backlog, {.transcripts = kDecade});
  const std::string parlova = (binaryDir / "parlova").string();

  const ChildRun defaults = runIn(makeHome(root, "defaults", backlog, transcripts, binaryDir),
                                  {parlova, "--catch-up", "--quiet"});
  const fs::path everyHome = withFeatures(makeHome(root, "every", backlog, transcripts, binaryDir), binaryDir, Features::Everything);
  const ChildRun every = runIn(everyHome, {parlova, "--catch-up", "--quiet"});
  if (transcriptsWaiting(everyHome) > 0)
    std::printf("(some transcripts were not processed: the figures below mean little)\n");
  const double floor = decodeAll(backlog, transcripts) + writeFinalArchivesAndPages(everyHome) +
                       writeEveryOtherOutputOnce(everyHome, root / "floor");
  line("catch-up, every feature on: 10,000", every.seconds, "s", "floor: decode all, write all once",
       every.seconds / floor, "<= 3");
  line("catch-up, every feature on, against defaults", every.seconds, "s", "the defaults' catch-up",
       every.seconds / defaults.seconds, "<= 3");
  std::printf("%-44s %9.2f %-5s (the defaults: %.2f s, %.0f MiB at most; every feature: %.0f MiB)\n",
              "catch-up, every feature on: the floor", floor, "s", defaults.seconds, defaults.peakMiB, every.peakMiB);

  // The transcript of 65 MB: decoded alone (what holding it takes), then
  // loaded, rendered and mailed, then with its links and pictures archived
  // as by default, then with every feature.
  const fs::path hugeFile = root / "somebuddy on 2007-05-04 at 10.00.chat";
  samples::writeFile(hugeFile, samples::typedStreamTranscript(samples::longStyledChat(370000)));
  const double megabytes = static_cast<double>(fs::file_size(hugeFile)) / (1 << 20);
  const std::string size = "the transcript (" + std::to_string(static_cast<int>(megabytes)) + " MiB)";
  const ChildRun decoded = runIn(root, {(binaryDir / "parlova-inspect").string(), hugeFile.string()});
  line("a transcript of 65 MB, decoded alone: peak", decoded.peakMiB, "MiB", size, decoded.peakMiB / megabytes,
       "none: a yardstick");
  struct Run {
    Features features;
    const char *home;
    std::string name;
  };
  for (const Run &run : {Run{Features::MailAlone, "huge-mail", "one run of it, mailed"},
                         Run{Features::MailAndLinks, "huge-links", "one run of it, mail and links"},
                         Run{Features::Everything, "huge-every", "one run of it, every feature"}}) {
    const fs::path home = withFeatures(makeHome(root, run.home, backlog, {}, binaryDir), binaryDir, run.features);
    const fs::path huge = home / "Documents/iChats" / hugeFile.filename();
    fs::create_directories(huge.parent_path());
    fs::copy_file(hugeFile, huge);
    const ChildRun one = runIn(home, {parlova});
    if (transcriptsWaiting(home) > 0)
      std::printf("(the transcript of %.0f MiB was not processed: the figure below means little)\n", megabytes);
    line((run.name + ": peak").c_str(), one.peakMiB, "MiB", size, one.peakMiB / megabytes, "<= 4");
    std::printf("%-44s %9.2f %-5s\n", (run.name + ": time").c_str(), one.seconds, "s");
  }
  removeWhenDone(root);
}

} // namespace parlova::bench
