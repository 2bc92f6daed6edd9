// A catch-up as a new user runs it, with every feature on (mail into a
// Maildir, links, pictures, the history, the chat library): against its
// floor (decoding every transcript once, writing every final output once
// with one flush at the end) and against the same catch-up with the
// defaults. And the memory one run takes for a transcript of 65 MB,
// loaded, rendered, mailed and archived.
#include <algorithm>
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

  // Three rounds, each with homes of its own, and the median of each
  // round's ratios: the disk's pace drifts from one minute to the next.
  // What the steps before left unwritten reaches the disk first, so that a
  // catch-up's own syncs flush only what it wrote.
  constexpr int kRounds = 3;
  std::vector<double> everySeconds, defaultSeconds, floors, againstFloor, againstDefaults;
  double defaultsPeak = 0, everyPeak = 0;
  bool allProcessed = true;
  for (int round = 0; round < kRounds; ++round) {
    const std::string suffix = std::to_string(round);
    const fs::path defaultsHome = makeHome(root, "defaults" + suffix, backlog, transcripts, binaryDir);
    sync();
    const ChildRun defaults = runIn(defaultsHome, {parlova, "--catch-up", "--quiet"});
    const fs::path everyHome =
        withFeatures(makeHome(root, "every" + suffix, backlog, transcripts, binaryDir), binaryDir, Features::Everything);
    sync();
    const ChildRun every = runIn(everyHome, {parlova, "--catch-up", "--quiet"});
    allProcessed = allProcessed && transcriptsWaiting(everyHome) == 0;
    sync();
    const double floor = decodeAll(backlog, transcripts) + writeFinalArchivesAndPages(everyHome) +
                         writeEveryOtherOutputOnce(everyHome, root / ("floor" + suffix));
    everySeconds.push_back(every.seconds);
    defaultSeconds.push_back(defaults.seconds);
    floors.push_back(floor);
    againstFloor.push_back(every.seconds / floor);
    againstDefaults.push_back(every.seconds / defaults.seconds);
    defaultsPeak = std::max(defaultsPeak, defaults.peakMiB);
    everyPeak = std::max(everyPeak, every.peakMiB);
  }
  if (!allProcessed)
    std::printf("(some transcripts were not processed: the figures below mean little)\n");
  line("catch-up, every feature on: 10,000", median(everySeconds), "s", "floor: decode all, write all once",
       median(againstFloor), "<= 3");
  line("catch-up, every feature on, against defaults", median(everySeconds), "s", "the defaults' catch-up",
       median(againstDefaults), "<= 3");
  std::printf("%-44s %9.2f %-5s (the defaults: %.2f s, %.0f MiB at most; every feature: %.0f MiB; medians of %d "
              "rounds)\n",
              "catch-up, every feature on: the floor", median(floors), "s", median(defaultSeconds), defaultsPeak,
              everyPeak, kRounds);
  for (int round = 0; round < kRounds; ++round)
    std::printf("%-44s %9.2f %-5s (floor %.2f s, %.2f times; defaults %.2f s, %.2f times)\n",
                ("  round " + std::to_string(round + 1)).c_str(), everySeconds[round], "s", floors[round],
                againstFloor[round], defaultSeconds[round], againstDefaults[round]);

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
