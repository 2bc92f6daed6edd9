// The web view on the 10,000-transcript backlog with a chat of 200,000
// messages among it: a search over HTTP beside the whole parlova-search
// process for the same query, a common word's first page, a window of the
// long chat, sixteen clients at once, and the server's memory.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <csignal>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <spawn.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <httplib.h>

#include "bench/JudgedFigures.h"
#include "samples/Backlog.h"
#include "samples/TranscriptWriter.h"

extern char **environ;

namespace parlova::bench {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsOf(const std::function<void()> &request) {
  const auto start = Clock::now();
  request();
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double peakMiBOf(pid_t pid) {
  double peak = 0;
  if (FILE *file = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r")) {
    char text[256];
    while (std::fgets(text, sizeof text, file))
      if (long kib = 0; std::sscanf(text, "VmHWM: %ld kB", &kib) == 1)
        peak = static_cast<double>(kib) / 1024.0;
    std::fclose(file);
  }
  return peak;
}

} // namespace

void printWeb(const fs::path &binaryDir) {
  constexpr size_t kDecade = 10000;
  constexpr int kLongChat = 200000;
  const fs::path root = fs::temp_directory_path() / ("parlova-web-" + std::to_string(getpid()));
  const fs::path backlog = root / "backlog";
  std::vector<fs::path> transcripts = samples::writeBacklog(backlog, {.transcripts = kDecade});
  samples::TranscriptSpec talk;
  const samples::Account me{"AIM", "parlovauser"}, other{"AIM", "longtalker"};
  talk.others = {other};
  for (int i = 0; i < kLongChat; ++i)
    talk.messages.push_back(samples::says(i % 2 ? me : other, 300000000 + i * 20.0,
                                          i == kLongChat / 2 ? "the zanzibar message" : "line " + std::to_string(i)));
  // As iChat 2 wrote it: libplist takes minutes to write a keyed archive this large.
  const fs::path longChat = "longtalker on 2010-07-05 at 10.00.chat";
  samples::writeFile(backlog / longChat, samples::typedStreamTranscript(talk));
  transcripts.push_back(longChat);
  const fs::path home = makeHome(root, "home", backlog, transcripts, binaryDir);
  runIn(home, {(binaryDir / "parlova-defaults").string(), "write", "com.hollowmere.parlova", "keepHistory", "-bool",
               "YES"});
  runIn(home, {(binaryDir / "parlova").string(), "--catch-up", "--quiet", "--yes"});

  // The server, its first line read through a pipe.
  int out[2];
  if (pipe(out) != 0)
    return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::vector<std::string> words = {(binaryDir / "parlova-web").string(), "--port", "0"};
  std::vector<std::string> variables = {"HOME=" + home.string(), "PATH=/usr/bin:/bin", "TZ=UTC"};
  std::vector<char *> argv, envp;
  for (auto &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  for (auto &variable : variables)
    envp.push_back(variable.data());
  envp.push_back(nullptr);
  pid_t server = 0;
  posix_spawn(&server, argv[0], &actions, nullptr, argv.data(), envp.data());
  close(out[1]);
  std::string opening;
  char c = 0;
  while (read(out[0], &c, 1) == 1 && c != '\n')
    opening += c;
  const std::string origin = opening.substr(0, opening.find("/?token="));
  const httplib::Headers cookie = {{"Cookie", "parlova-token=" + opening.substr(opening.find("token=") + 6)}};

  // As a browser asks: one connection kept open, without Nagle's delay.
  httplib::Client client(origin);
  client.set_keep_alive(true);
  client.set_tcp_nodelay(true);
  const auto get = [&](httplib::Client &via, const std::string &target) {
    const auto answer = via.Get(target.c_str(), cookie);
    return answer && answer->status == 200 ? answer->body : std::string();
  };
  const auto medianOf = [&](int times, const std::string &target) {
    std::vector<double> timings;
    for (int i = 0; i < times; ++i)
      timings.push_back(millisecondsOf([&] { get(client, target); }));
    return median(timings);
  };

  const std::string rare = "/search?format=json&q=4711";
  const bool rareFound = get(client, rare).find("\"url\"") != std::string::npos;
  const double rareWord = medianOf(50, rare);
  std::vector<double> processes;
  for (int i = 0; i < 20; ++i)
    processes.push_back(runIn(home, {(binaryDir / "parlova-search").string(), "--json", "4711"}).seconds * 1000);
  const double searchProcess = median(processes);
  const double commonWord = medianOf(30, "/search?format=json&q=movie");

  const std::string needle = get(client, "/search?format=json&q=zanzibar");
  const size_t url = needle.find("\"url\":\"");
  const std::string chatAddress =
      url == std::string::npos ? "" : needle.substr(url + 7 + origin.size(), needle.find('#', url) - url - 7 - origin.size());
  const size_t chatBytes = get(client, chatAddress).size();
  const double chatWindow = medianOf(30, chatAddress);

  // Sixteen clients, each on a connection of its own, all at once.
  const auto crowded = [&](const std::string &target) {
    constexpr int kClients = 16, kEach = 20;
    std::vector<std::vector<double>> timings(kClients);
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i)
      clients.emplace_back([&, i] {
        httplib::Client own(origin);
        own.set_keep_alive(true);
        own.set_tcp_nodelay(true);
        for (int n = 0; n < kEach; ++n)
          timings[i].push_back(millisecondsOf([&] { get(own, target); }));
      });
    for (std::thread &each : clients)
      each.join();
    std::vector<double> together;
    for (const auto &each : timings)
      together.insert(together.end(), each.begin(), each.end());
    return median(together);
  };
  const double sixteen = crowded(rare);
  // The yardstick for crowding: the same server handing out its icon from
  // memory, no search at all, one client and sixteen.
  const double iconAlone = medianOf(50, "/icon.svg");
  const double iconSixteen = crowded("/icon.svg");
  const double memory = peakMiBOf(server);
  kill(server, SIGTERM);
  waitpid(server, nullptr, 0);
  close(out[0]);
  posix_spawn_file_actions_destroy(&actions);

  if (!rareFound || chatBytes == 0)
    std::printf("(the web view did not answer as expected: the figures below mean little)\n");
  line("web: a rare word, JSON over HTTP", rareWord, "ms", "parlova-search process: times faster",
       searchProcess / rareWord, ">= 1, figure <= 5");
  line("web: a common word, first page", commonWord, "ms", "20 ms", commonWord / 20, "<= 1");
  line("web: chat of 200,000 at a message", chatWindow, "ms", "50 ms", chatWindow / 50, "<= 1");
  line("web: that page's size", static_cast<double>(chatBytes) / 1024, "KiB", "500 KiB",
       static_cast<double>(chatBytes) / 1024 / 500, "<= 1");
  line("web: 16 clients at once, rare word", sixteen, "ms", "one client", sixteen / rareWord, "< 4");
  // Sixteen requests at a time on this machine's cores cannot be answered
  // faster than its cores take turns: the ideal is one client's time times
  // 16 / cores once the work is the processor's.
  const double cores = std::max(1u, std::thread::hardware_concurrency());
  line("web: 16 clients, against the cores' ideal", sixteen, "ms",
       "one client x 16 / " + std::to_string(static_cast<int>(cores)) + " cores", sixteen / (rareWord * 16 / cores),
       "<= 1");
  line("web: 16 clients, the icon alone", iconSixteen, "ms", "one client, the icon alone", iconSixteen / iconAlone,
       "as the rare word's");
  line("web: 16 clients, rare word's crowding", sixteen / rareWord, "x", "the icon's crowding",
       (sixteen / rareWord) / (iconSixteen / iconAlone), "<= 1.25");
  line("web: server's peak memory", memory, "MiB", "64 MiB", memory / 64, "<= 1");
  removeWhenDone(root);
}

} // namespace parlova::bench
