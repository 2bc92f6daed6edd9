// The catch-up of a decade: 10,000 generated transcripts carried through by
// one `parlova --catch-up`, judged against the floor (decoding every
// transcript once, writing every final archive and page once), against
// 1,000 single runs on the first 1,000 of them, by its peak memory, and by
// how its cost per transcript grows.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <optional>
#include <spawn.h>
#include <string>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench/JudgedFigures.h"
#include "generator/GatheredArchive.h"
#include "generator/ICLPLogGenerator.h"
#include "history/MessageSearch.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "samples/Backlog.h"

namespace parlova::bench {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

ChildRun runIn(const fs::path &home, const std::vector<std::string> &command) {
  std::vector<std::string> words = command;
  std::vector<char *> argv;
  for (auto &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  std::vector<std::string> variables = {"HOME=" + home.string(), "PATH=/usr/bin:/bin", "TZ=UTC",
                                        "PARLOVA_PAUSE_SECONDS=0", "PARLOVA_OSASCRIPT=/bin/false"};
  std::vector<char *> envp;
  for (auto &variable : variables)
    envp.push_back(variable.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  ChildRun result;
  const auto start = Clock::now();
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) == 0) {
    // The child's own high-water mark, read while it runs: its rusage would
    // also count this process's memory, which it shared until its exec.
    // Woken by the child's exit through its pidfd, not by the next
    // sample: a search takes a few milliseconds, a sleep would be most of it.
    const std::string status = "/proc/" + std::to_string(pid) + "/status";
    const int exited = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    int code = 0;
    rusage usage{};
    while (wait4(pid, &code, WNOHANG, &usage) == 0) {
      if (FILE *file = std::fopen(status.c_str(), "r")) {
        char text[256];
        while (std::fgets(text, sizeof text, file))
          if (long kib = 0; std::sscanf(text, "VmHWM: %ld kB", &kib) == 1)
            result.peakMiB = std::max(result.peakMiB, static_cast<double>(kib) / 1024.0);
        std::fclose(file);
      }
      if (exited >= 0) {
        pollfd child{exited, POLLIN, 0};
        poll(&child, 1, 2);
      } else {
        usleep(2000);
      }
    }
    if (exited >= 0)
      close(exited);
    result.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                        static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  }
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  posix_spawn_file_actions_destroy(&actions);
  return result;
}

// A home with the shipped files, links and pictures on, mail off, and the
// given transcripts of the backlog (linked, not copied).
fs::path makeHome(const fs::path &root, const std::string &name, const fs::path &backlog,
                  const std::vector<fs::path> &transcripts, const fs::path &binaryDir) {
  const fs::path home = root / name;
  const fs::path library = home / "Library" / "Parlova";
  fs::create_directories(library / "Images");
  for (const auto &shipped : fs::directory_iterator(fs::path(PARLOVA_SOURCE_DIR) / "resources"))
    fs::copy_file(shipped.path(),
                  (shipped.path().filename() == "pdf.png" ? library / "Images" : library) / shipped.path().filename());
  for (const fs::path &transcript : transcripts) {
    const fs::path target = home / "Documents" / "iChats" / transcript;
    fs::create_directories(target.parent_path());
    fs::create_hard_link(backlog / transcript, target);
  }
  for (const char *key : {"handleURLs", "handleImages"})
    runIn(home, {(binaryDir / "parlova-defaults").string(), "write", "com.hollowmere.parlova", key, "-bool", "YES"});
  return home;
}

size_t transcriptsWaiting(const fs::path &home) {
  size_t count = 0;
  for (const auto &entry : fs::recursive_directory_iterator(home / "Documents" / "iChats"))
    count += entry.path().extension() == ".chat" || entry.path().extension() == ".ichat";
  return count;
}

// Decoding every transcript once, in this process.
double decodeAll(const fs::path &backlog, const std::vector<fs::path> &transcripts) {
  const auto start = Clock::now();
  size_t loaded = 0;
  for (const fs::path &transcript : transcripts)
    loaded += ICLPChatLog::initWithFilePath(backlog / transcript).has_value();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (loaded != transcripts.size())
    std::printf("(only %zu of %zu transcripts loaded)\n", loaded, transcripts.size());
  return seconds;
}

// Writing every final archive and page once: what a catch-up cannot avoid.
double writeFinalArchivesAndPages(const fs::path &home) {
  const char *saved = std::getenv("HOME");
  const std::string savedHome = saved ? saved : "";
  setenv("HOME", home.c_str(), 1);
  const fs::path library = ICLPLogGenerator::parlovaFolder();
  const auto start = Clock::now();
  for (const char *name : {"gatheredURLs.plist", "gatheredImages.plist", "chatgeist.plist"}) {
    const auto bytes = readFileContents(library / name);
    const auto archive = bytes ? PlistValue::parse(*bytes) : std::nullopt;
    if (archive)
      writeArchive(library / name, archive->serialized(PlistFormat::XML));
  }
  ICLPLogGenerator::GenerateLinkFiles(nullptr);
  ICLPLogGenerator::GenerateImageFiles(nullptr);
  ICLPLogGenerator::RebuildStatisticsPage(
      ICLPLogGenerator::AddToTotals(nullptr, ICLPLogGenerator::ReadTotalsFile(), {}));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  setenv("HOME", savedHome.c_str(), 1);
  return seconds;
}

void line(const char *what, double figure, const char *unit, const std::string &against, double ratio,
          const char *goal) {
  std::printf("%-44s %9.2f %-5s %-34s ratio %6.2f  (goal %s)\n", what, figure, unit, against.c_str(), ratio, goal);
  // Seen as it comes: some figures take minutes.
  std::fflush(stdout);
}

void printCatchUp(const fs::path &binaryDir) {
  constexpr size_t kDecade = 10000;
  constexpr size_t kThousand = 1000;
  const fs::path root = fs::temp_directory_path() / ("parlova-catch-up-" + std::to_string(getpid()));
  const fs::path backlog = root / "backlog";
  const std::vector<fs::path> transcripts = samples::writeBacklog(backlog, {.transcripts = kDecade});
  const std::vector<fs::path> first(transcripts.begin(), transcripts.begin() + kThousand);
  const std::string parlova = (binaryDir / "parlova").string();

  const fs::path decadeHome = makeHome(root, "decade", backlog, transcripts, binaryDir);
  const ChildRun decade = runIn(decadeHome, {parlova, "--catch-up", "--quiet"});
  const fs::path thousandHome = makeHome(root, "thousand", backlog, first, binaryDir);
  const ChildRun thousand = runIn(thousandHome, {parlova, "--catch-up", "--quiet"});
  const double floor = decodeAll(backlog, transcripts) + writeFinalArchivesAndPages(decadeHome);

  const fs::path singlesHome = makeHome(root, "singles", backlog, first, binaryDir);
  double singles = 0;
  for (size_t run = 0; run < kThousand + 10 && transcriptsWaiting(singlesHome) > 0; ++run)
    singles += runIn(singlesHome, {parlova}).seconds;
  if (transcriptsWaiting(decadeHome) + transcriptsWaiting(thousandHome) + transcriptsWaiting(singlesHome) > 0)
    std::printf("(some transcripts were not processed: the figures below mean little)\n");

  line("catch-up: 10,000 transcripts", decade.seconds, "s", "floor: decode all, write once", decade.seconds / floor,
       "<= 3");
  line("catch-up: first 1,000 transcripts", thousand.seconds, "s", "1,000 single runs: times faster",
       singles / thousand.seconds, ">= 50");
  line("catch-up: peak memory, 10,000", decade.peakMiB, "MiB", "300 MiB", decade.peakMiB / 300, "<= 1");
  line("catch-up: time per transcript", decade.seconds / kDecade * 1000, "ms", "per transcript at 1,000",
       (decade.seconds / kDecade) / (thousand.seconds / kThousand), "<= 1.5");
  std::printf("%-44s %9.2f %-5s (1,000 single runs: %.1f s)\n", "catch-up: the floor for 10,000", floor, "s",
              singles);
  removeWhenDone(root);
}

// The instructions a command executes, counted by valgrind's callgrind:
// unlike seconds, the same on a busy machine as on an idle one. Nothing
// when valgrind is not there.
std::optional<double> instructionsOf(const fs::path &home, std::vector<std::string> command) {
  const fs::path log = home.parent_path() / (home.filename().string() + ".callgrind.log");
  command.insert(command.begin(), {"/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                                   "--log-file=" + log.string()});
  if (!fs::exists(command.front()))
    return std::nullopt;
  runIn(home, command);
  std::optional<double> counted;
  if (FILE *file = std::fopen(log.c_str(), "r")) {
    char text[512];
    while (std::fgets(text, sizeof text, file))
      if (const char *refs = std::strstr(text, "refs:")) {
        std::string digits;
        for (const char *c = refs + 5; *c; ++c)
          if (*c >= '0' && *c <= '9')
            digits += *c;
        if (!digits.empty())
          counted = std::stod(digits);
      }
    std::fclose(file);
  }
  return counted;
}

// Texts as fts-alone reads them: each after its length, four bytes, least
// significant first.
void packTexts(const std::vector<std::string> &texts, const fs::path &file) {
  std::vector<uint8_t> packed;
  for (const std::string &text : texts) {
    for (int shift = 0; shift < 32; shift += 8)
      packed.push_back(static_cast<uint8_t>(text.size() >> shift));
    packed.insert(packed.end(), text.begin(), text.end());
  }
  writeFileAtomically(file, packed);
}

// Finding a chat on the 10,000-transcript backlog: each query as the
// whole parlova-search process, beside grep -rcw over the plain texts of
// the same chats (written once, as the generator wrote them); the index's
// cost in a catch-up beside SQLite alone indexing the same texts in one
// transaction; and the database's size beside the text it indexes.
void printSearch(const fs::path &binaryDir) {
  constexpr size_t kDecade = 10000;
  const fs::path root = fs::temp_directory_path() / ("parlova-search-" + std::to_string(getpid()));
  const fs::path backlog = root / "backlog";
  std::vector<std::string> texts;
  const std::vector<fs::path> transcripts =
      samples::writeBacklog(backlog, {.transcripts = kDecade, .texts = &texts});
  const std::string parlova = (binaryDir / "parlova").string();

  // The index's cost is the difference of two catch-ups of the same
  // backlog, one keeping the history and one not. Two catch-ups of a few
  // seconds differ on a shared virtual machine by as much as that, and the
  // machine's pace drifts over a minute: so five rounds, the two runs of a
  // round in turns first, each after its transcripts were read once and
  // the disk synced (neither finds the other's writing still under way),
  // and the median of the rounds' differences. Timed on the clock and in
  // the processor's time: the history is written on a second thread, so
  // the clock tells what the user waits for and the processor the work.
  constexpr int kRounds = 5;
  const auto warmed = [](const fs::path &home) {
    for (const auto &entry : fs::recursive_directory_iterator(home / "Documents" / "iChats"))
      if (entry.is_regular_file())
        readFileContents(entry.path());
    sync();
    return home;
  };
  std::vector<double> clockCosts, processorCosts, plainClock, indexedClock;
  fs::path indexedHome;
  for (int round = 0; round < kRounds; ++round) {
    const fs::path plainHome = makeHome(root, "plain" + std::to_string(round), backlog, transcripts, binaryDir);
    if (!indexedHome.empty())
      removeWhenDone(indexedHome);
    indexedHome = makeHome(root, "indexed" + std::to_string(round), backlog, transcripts, binaryDir);
    runIn(indexedHome, {(binaryDir / "parlova-defaults").string(), "write", "com.hollowmere.parlova", "keepHistory",
                        "-bool", "YES"});
    const auto catchUp = [&](const fs::path &home) { return runIn(warmed(home), {parlova, "--catch-up", "--quiet"}); };
    ChildRun plain, indexed;
    if (round % 2 == 0) {
      plain = catchUp(plainHome);
      indexed = catchUp(indexedHome);
    } else {
      indexed = catchUp(indexedHome);
      plain = catchUp(plainHome);
    }
    removeWhenDone(plainHome);
    clockCosts.push_back(indexed.seconds - plain.seconds);
    processorCosts.push_back(indexed.cpuSeconds - plain.cpuSeconds);
    plainClock.push_back(plain.seconds);
    indexedClock.push_back(indexed.seconds);
  }

  // The floor: the same texts into a bare FTS5 table, in one transaction,
  // from a process that is nothing but libsqlite3.
  size_t textBytes = 0;
  for (const std::string &text : texts)
    textBytes += text.size();
  const fs::path textsFile = root / "texts.packed";
  packTexts(texts, textsFile);
  std::vector<double> floorClock, floorProcessor;
  for (int round = 0; round < kRounds; ++round) {
    fs::remove(root / "bare.sqlite");
    readFileContents(textsFile);
    sync();
    const ChildRun run = runIn(root, {(binaryDir / "bench" / "fts-alone").string(), (root / "bare.sqlite").string(),
                                      textsFile.string()});
    floorClock.push_back(run.seconds);
    floorProcessor.push_back(run.cpuSeconds);
  }
  const double clockCost = median(clockCosts), processorCost = median(processorCosts);
  const double floorSeconds = median(floorClock), floorCpuSeconds = median(floorProcessor);

  // The plain rendering of each chat, one file each, for grep.
  const fs::path plainTexts = root / "texts";
  fs::create_directories(plainTexts);
  size_t plainBytes = 0;
  for (size_t i = 0; i < transcripts.size(); ++i)
    if (const auto log = ICLPChatLog::initWithFilePath(backlog / transcripts[i])) {
      const std::string plainText = log->PlainChatLog();
      plainBytes += plainText.size();
      writeFileAtomically(plainTexts / (std::to_string(i) + ".txt"),
                          std::vector<uint8_t>(plainText.begin(), plainText.end()));
    }
  const auto best = [](const std::function<double()> &timed) {
    double fastest = 1e9;
    for (int round = 0; round < 5; ++round)
      fastest = std::min(fastest, timed());
    return fastest;
  };
  const auto searching = [&](const std::string &query) {
    return best([&] { return runIn(indexedHome, {(binaryDir / "parlova-search").string(), query}).seconds; });
  };
  const auto grepping = [&](const std::string &word) {
    return best([&] { return runIn(root, {"/usr/bin/grep", "-rcw", word, plainTexts.string()}).seconds; });
  };
  // The same statements from a process that is nothing but libsqlite3.
  const auto alone = [&](const std::string &query) {
    const std::string database = (indexedHome / "Library" / "Parlova" / "history.sqlite").string();
    return best([&] {
      return runIn(root, {(binaryDir / "bench" / "sqlite-alone").string(), database, ftsQuery(query), "50",
                          kCountStatement, hitsStatement(HitOrder::BestOfFew)})
          .seconds;
    });
  };
  const double grepRare = grepping("4711");
  const double grepCommon = grepping("movie");

  const double rareWord = searching("4711"), rarePhrase = searching("\"com 4711\""), rarePrefix = searching("471*");
  const double commonWord = searching("movie");
  line("search: a rare word, whole process", rareWord * 1000, "ms", "grep -rcw: times faster", grepRare / rareWord,
       ">= 20");
  line("search: a rare phrase", rarePhrase * 1000, "ms", "grep -rcw: times faster", grepRare / rarePhrase, ">= 20");
  line("search: a rare prefix", rarePrefix * 1000, "ms", "grep -rcw: times faster", grepRare / rarePrefix, ">= 20");
  const double aloneRare = alone("4711");
  std::printf("%-44s %9.2f %-5s (the rare word's statements from a bare process: %.0f times faster than grep; "
              "parlova-search takes %.2f times as long)\n",
              "search: libsqlite3 alone, whole process", aloneRare * 1000, "ms", grepRare / aloneRare,
              rareWord / aloneRare);
  line("search: a common word, best 50", commonWord * 1000, "ms", "grep -rcw: times faster", grepCommon / commonWord,
       ">= 2");
  line("search: indexing in a catch-up, clock", clockCost, "s", "SQLite alone, one transaction",
       clockCost / std::max(floorSeconds, 1e-9), "<= 1.3");
  std::printf("%-44s %9.2f %-5s (SQLite alone %.2f s: %.2f times; medians of %d rounds; catch-ups %.2f s and "
              "%.2f s)\n",
              "search: indexing in a catch-up, processor", processorCost, "s", floorCpuSeconds,
              processorCost / std::max(floorCpuSeconds, 1e-9), kRounds, median(plainClock), median(indexedClock));
  // The same in instructions, on 1,000 transcripts: a few seconds' noise
  // on a shared machine is as large as the difference timed above.
  {
    std::vector<std::string> someTexts;
    const fs::path some = root / "some";
    const std::vector<fs::path> someTranscripts =
        samples::writeBacklog(some, {.transcripts = 1000, .texts = &someTexts});
    const fs::path someTextsFile = root / "some-texts";
    packTexts(someTexts, someTextsFile);
    const fs::path plainSome = makeHome(root, "plain-some", some, someTranscripts, binaryDir);
    const fs::path indexedSome = makeHome(root, "indexed-some", some, someTranscripts, binaryDir);
    runIn(indexedSome, {(binaryDir / "parlova-defaults").string(), "write", "com.hollowmere.parlova", "keepHistory",
                        "-bool", "YES"});
    const auto plainCount = instructionsOf(plainSome, {parlova, "--catch-up", "--quiet"});
    const auto indexedCount = instructionsOf(indexedSome, {parlova, "--catch-up", "--quiet"});
    const auto aloneCount = instructionsOf(root / "fts-home", {(binaryDir / "bench" / "fts-alone").string(),
                                                                (root / "fts.sqlite").string(), someTextsFile.string()});
    if (plainCount && indexedCount && aloneCount)
      line("search: indexing, in instructions (1,000)", (*indexedCount - *plainCount) / 1e6, "M", "libsqlite3 alone",
           (*indexedCount - *plainCount) / *aloneCount, "<= 1.3");
    else
      std::printf("(no valgrind here: indexing is not counted in instructions)\n");
  }
  std::error_code ignored;
  const auto size = fs::file_size(indexedHome / "Library" / "Parlova" / "history.sqlite", ignored);
  line("search: history with its index", static_cast<double>(size) / (1 << 20), "MiB", "the text it indexes",
       static_cast<double>(size) / static_cast<double>(std::max<size_t>(textBytes, 1)), "<= 3");
  std::printf("%-44s %9.2f %-5s (%zu messages; plain renderings %.1f MiB; grep: %.0f ms rare, %.0f ms common)\n",
              "search: the text indexed", static_cast<double>(textBytes) / (1 << 20), "MiB", texts.size(),
              static_cast<double>(plainBytes) / (1 << 20), grepRare * 1000, grepCommon * 1000);
  removeWhenDone(root);
}

} // namespace parlova::bench
