// The figures Parlova is judged by, each beside the yardstick it is judged
// against, measured in the same run so that the machine's mood cancels out:
// start-up against /bin/true, decoding against libplist's own parse of the
// same file, rendering 10,000 messages against 1,000, and merging into a
// 100,000-link archive against libplist reading and writing that archive.
#include "bench/JudgedFigures.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <plist/plist.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"

extern char **environ;

namespace parlova::bench {

namespace fs = std::filesystem;

namespace {

double secondsOf(const std::function<void()> &work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double medianSeconds(int rounds, const std::function<void()> &work) {
  std::vector<double> times;
  for (int i = 0; i < rounds; ++i)
    times.push_back(secondsOf(work));
  return median(std::move(times));
}

void runQuietly(const std::vector<std::string> &command, const std::vector<std::string> &environment) {
  std::vector<char *> argv;
  std::vector<std::string> words = command;
  for (auto &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  std::vector<std::string> variables = environment;
  std::vector<char *> envp;
  for (auto &variable : variables)
    envp.push_back(variable.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) == 0)
    waitpid(pid, nullptr, 0);
  posix_spawn_file_actions_destroy(&actions);
}

void report(const char *what, double figure, const char *unit, const char *against, double ratio, const char *goal) {
  std::printf("%-44s %9.2f %-5s %-34s ratio %6.2f  (goal %s)\n", what, figure, unit, against, ratio, goal);
}

} // namespace

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

namespace {
std::vector<fs::path> &foldersMade() {
  static std::vector<fs::path> folders;
  return folders;
}
} // namespace

void removeWhenDone(const fs::path &folder) { foldersMade().push_back(folder); }

void removeFoldersMade() {
  for (const fs::path &folder : foldersMade())
    fs::remove_all(folder);
  foldersMade().clear();
}

void printStartUp(const fs::path &binaryDir, const fs::path &smallTranscript) {
  const fs::path home = fs::temp_directory_path() / ("parlova-startup-" + std::to_string(getpid()));
  fs::create_directories(home / "Documents" / "iChats");
  const std::vector<std::string> environment = {"HOME=" + home.string(), "PATH=/usr/bin:/bin"};
  constexpr int kRounds = 101;
  const double truth = medianSeconds(kRounds, [&] { runQuietly({"/bin/true"}, environment); });
  const double run = medianSeconds(kRounds, [&] { runQuietly({(binaryDir / "parlova").string()}, environment); });
  const double inspect = medianSeconds(
      kRounds, [&] { runQuietly({(binaryDir / "parlova-inspect").string(), "--plain", smallTranscript}, environment); });
  fs::remove_all(home);
  report("start-up: parlova on an empty folder", run * 1000, "ms", "/bin/true", run / truth, "<= 3");
  report("start-up: parlova-inspect --plain, 16 KB", inspect * 1000, "ms", "/bin/true", inspect / truth, "<= 3");
}

void printDecoding(const fs::path &keyed, const fs::path &typedStream) {
  const auto keyedBytes = readFileContents(keyed).value_or(std::vector<uint8_t>{});
  const auto typedBytes = readFileContents(typedStream).value_or(std::vector<uint8_t>{});
  // Decoding and freeing are timed apart: the tool ends its run with the
  // transcript still loaded and never frees it.
  struct Timing {
    double decode = 1e9;
    double free = 1e9;
  };
  const auto timed = [](const std::function<void()> &decode, const std::function<void()> &release) {
    Timing best;
    for (int i = 0; i < 7; ++i) {
      best.decode = std::min(best.decode, secondsOf(decode));
      best.free = std::min(best.free, secondsOf(release));
    }
    return best;
  };
  plist_t tree = nullptr;
  const Timing floor = timed(
      [&] {
        plist_from_bin(reinterpret_cast<const char *>(keyedBytes.data()), static_cast<uint32_t>(keyedBytes.size()),
                       &tree);
      },
      [&] { plist_free(tree); });
  std::optional<ICLPChatLog> log;
  const auto load = [&log](const fs::path &path) { return [&log, path] { log = ICLPChatLog::initWithFilePath(path); }; };
  const auto unload = [&log] { log.reset(); };
  const Timing keyedTiming = timed(load(keyed), unload);
  const Timing typedTiming = timed(load(typedStream), unload);
  const auto rate = [](size_t bytes, double seconds) { return static_cast<double>(bytes) / 1e6 / seconds; };
  std::printf("%-44s %9.2f %-5s (its parse alone: the floor; freeing the tree %.1f ms more)\n",
              "libplist: the keyed transcript", rate(keyedBytes.size(), floor.decode), "MB/s", floor.free * 1000);
  report("decode: keyed transcript, 5 MB", rate(keyedBytes.size(), keyedTiming.decode), "MB/s",
         "time / libplist parse", keyedTiming.decode / floor.decode, ">= 100 MB/s");
  report("decode: typed stream, 5 MB", rate(typedBytes.size(), typedTiming.decode), "MB/s",
         "time / libplist parse (keyed)", typedTiming.decode / floor.decode, ">= 100 MB/s");
  std::printf("%-44s %9.2f %-5s keyed, %.2f ms typed stream (not part of a run)\n", "free: the loaded transcripts",
              keyedTiming.free * 1000, "ms", typedTiming.free * 1000);
}

void printRendering(double thousandSeconds, double tenThousandSeconds) {
  report("render: HTML of 10,000 messages", tenThousandSeconds * 1000, "ms", "1,000 messages",
         tenThousandSeconds / thousandSeconds, "about 10: linear");
}

void printMerge(double mergeSeconds, const std::vector<uint8_t> &archive) {
  const double readWrite = medianSeconds(5, [&] {
    plist_t root = nullptr;
    plist_from_xml(reinterpret_cast<const char *>(archive.data()), static_cast<uint32_t>(archive.size()), &root);
    char *xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    std::free(xml);
    plist_free(root);
  });
  report("merge: 50 links into 100,000, pages too", mergeSeconds * 1000, "ms", "libplist read + write of it",
         mergeSeconds / readWrite, "a small multiple");
}

} // namespace parlova::bench
