// Mail for a backlog. Each cost is a catch-up with the delivery less the
// same catch-up with mail off, per message: into a Maildir, into the
// loopback Dovecot the tests use, into the same Dovecot 40 ms away (a proxy
// that holds every byte 20 ms each way, counting connections and round
// trips), and through a loopback SMTP server in one session, against what
// a message cost when every one had a session of its own (single runs).
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench/JudgedFigures.h"
#include "platform/FileManager.h"
#include "samples/Backlog.h"

extern char **environ;

namespace parlova::bench {

namespace fs = std::filesystem;

Helper::Helper(std::vector<std::string> words) {
  std::vector<char *> argv;
  for (auto &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), environ);
}

Helper::~Helper() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
}

namespace {

std::string textOf(const fs::path &file) {
  for (int wait = 0; wait < 500 && !fs::exists(file); ++wait)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const auto bytes = readFileContents(file);
  return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

// The private Dovecot of the tests, stopped when the object goes.
class Dovecot {
public:
  explicit Dovecot(const fs::path &folder) : folder_(folder) {
    fs::create_directories(folder);
    const std::string start = "/usr/bin/python3 " + std::string(PARLOVA_SOURCE_DIR) +
                              "/tests/support/imap_server.py --no-ssl --dir " + folder.string();
    if (std::system(start.c_str()) == 0)
      port_ = textOf(folder / "ports").substr(0, textOf(folder / "ports").find(' '));
  }
  ~Dovecot() {
    const std::string master = textOf(folder_ / "run" / "master.pid");
    if (!master.empty())
      kill(static_cast<pid_t>(std::atol(master.c_str())), SIGTERM);
  }
  const std::string &port() const { return port_; }

private:
  fs::path folder_;
  std::string port_;
};

struct Proxy {
  Proxy(const fs::path &folder, const std::string &to, int delayMs)
      : folder((fs::create_directories(folder), folder)), helper({"/usr/bin/python3", std::string(PARLOVA_SOURCE_DIR) + "/tests/support/delay_proxy.py",
                                "--to", to, "--delay", std::to_string(delayMs), "--port-file",
                                (folder / "port").string(), "--stats", (folder / "stats").string()}) {}
  std::string port() const { return textOf(folder / "port"); }
  std::pair<int, int> connectionsAndRoundTrips() const {
    const std::string stats = textOf(folder / "stats");
    return {std::atoi(stats.c_str()), std::atoi(stats.substr(stats.find(' ') + 1).c_str())};
  }
  fs::path folder;
  Helper helper;
};

} // namespace

void printMail(const fs::path &binaryDir) {
  constexpr size_t kChats = 1000;
  constexpr size_t kSingles = 20;
  const fs::path root = fs::temp_directory_path() / ("parlova-mail-" + std::to_string(getpid()));
  const fs::path backlog = root / "backlog";
  const std::vector<fs::path> transcripts = samples::writeBacklog(backlog, {.transcripts = kChats});
  const std::vector<fs::path> first(transcripts.begin(), transcripts.begin() + kSingles);
  const std::string parlova = (binaryDir / "parlova").string();
  const auto configured = [&](const std::string &name, const std::vector<fs::path> &chats,
                              const std::vector<std::vector<std::string>> &settings) {
    const fs::path home = makeHome(root, name, backlog, chats, binaryDir);
    std::vector<std::vector<std::string>> all = settings;
    if (!settings.empty())
      all.insert(all.begin(), {{"sendEmails", "-bool", "YES"},
                               {"emailAddress", "me@example.org"},
                               {"emailOutgoing", "parlova@example.org"}});
    for (const auto &setting : all) {
      std::vector<std::string> command = {(binaryDir / "parlova-defaults").string(), "write", "com.hollowmere.parlova"};
      command.insert(command.end(), setting.begin(), setting.end());
      runIn(home, command);
    }
    return home;
  };
  const auto catchUp = [&](const std::string &name, const std::vector<std::vector<std::string>> &settings) {
    return runIn(configured(name, transcripts, settings), {parlova, "--catch-up", "--quiet"}).seconds;
  };
  const auto imapSettings = [](const std::string &port) {
    return std::vector<std::vector<std::string>>{{"emailDelivery", "imap"}, {"emailServer", "127.0.0.1"},
                                                 {"emailPort", "-int", port}, {"emailUsername", "chatuser"},
                                                 {"emailPassword", "s3cret"}};
  };

  const double plain = catchUp("plain", {});
  const double maildir = catchUp("maildir", {{"emailDelivery", "maildir"}, {"emailMaildir", (root / "Maildir").string()}});
  const auto perChat = [&](double seconds) { return std::max(seconds - plain, 1e-9) / kChats; };
  line("mail: into a Maildir, per message (1,000)", perChat(maildir) * 1000, "ms", "defaults, per transcript",
       perChat(maildir) / (plain / kChats), "(shown)");

  // Dovecot's folders need a path its own users reach: not under a home.
  const fs::path imapRoot = fs::temp_directory_path() / ("parlova-bench-imap-" + std::to_string(getpid()));
  {
    Dovecot dovecot(imapRoot);
    if (dovecot.port().empty()) {
      std::printf("(the loopback IMAP server did not start: no IMAP figures)\n");
    } else {
      const double loopback = catchUp("imap", imapSettings(dovecot.port()));
      line("mail: into loopback IMAP, per message (1,000)", perChat(loopback) * 1000, "ms", "into a Maildir: times",
           perChat(loopback) / perChat(maildir), "(shown)");
      Proxy proxy(root / "proxy", dovecot.port(), 20);
      auto settings = imapSettings(proxy.port());
      settings.push_back({"emailFolder", "Distant"});
      const double distant = catchUp("imap-distant", settings);
      const auto [connections, roundTrips] = proxy.connectionsAndRoundTrips();
      line("mail: IMAP 40 ms away, round trips a chat", static_cast<double>(roundTrips) / kChats, "", "goal 2",
           static_cast<double>(roundTrips) / kChats / 2, "<= 1");
      line("mail: IMAP 40 ms away, connections (1,000)", connections, "", "goal 3", connections / 3.0, "<= 1");
      std::printf("%-44s %9.2f %-5s (the round trip alone: 40 ms)\n", "mail: IMAP 40 ms away, per message",
                  (distant - plain) / kChats * 1000, "ms");
    }
  }
  removeWhenDone(imapRoot);

  Helper smtp({"/usr/bin/python3", std::string(PARLOVA_SOURCE_DIR) + "/tests/support/smtp_server.py", "--mode",
               "accept", "--port-file", (root / "smtp-port").string(), "--dir", (root / "smtp").string()});
  const std::vector<std::vector<std::string>> throughSmtp = {{"emailServer", "127.0.0.1"},
                                                             {"emailPort", "-int", textOf(root / "smtp-port")}};
  const double session = catchUp("smtp", throughSmtp);
  // A message with a session of its own and the one-second wait: single
  // runs, less the same single runs with mail off.
  const auto singles = [&](const std::string &name, const std::vector<std::vector<std::string>> &settings) {
    const fs::path home = configured(name, first, settings);
    double seconds = 0;
    for (size_t run = 0; run < kSingles + 5 && transcriptsWaiting(home) > 0; ++run)
      seconds += runIn(home, {parlova}).seconds;
    return seconds;
  };
  const double eachAlone = (singles("smtp-singles", throughSmtp) - singles("plain-singles", {})) / kSingles;
  line("mail: SMTP, one session, per message (1,000)", perChat(session) * 1000, "ms",
       "a session each (single runs, 20)", perChat(session) / eachAlone, "<= 0.05");
  removeWhenDone(root);
}

} // namespace parlova::bench
