#include "tests/support/ToolTestSupport.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

extern char **environ;

namespace parlova::testing {

namespace fs = std::filesystem;

namespace {

std::string shellQuoted(const std::string &text) {
  std::string out = "'";
  for (const char c : text) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  return out + "'";
}

} // namespace

ScratchHome::ScratchHome() {
  std::string pattern = (fs::temp_directory_path() / "parlova-home-XXXXXX").string();
  if (!mkdtemp(pattern.data()))
    throw std::runtime_error("cannot make a scratch home");
  path_ = pattern;
}

ScratchHome::~ScratchHome() {
  std::error_code error;
  // A test may have taken permissions away; give them back before removal.
  for (auto it = fs::recursive_directory_iterator(path_, error); !error && it != fs::recursive_directory_iterator();
       it.increment(error))
    fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, error);
  fs::remove_all(path_, error);
}

fs::path ScratchHome::addTranscript(const std::string &relativePath, const samples::TranscriptSpec &spec) const {
  const fs::path target = chats() / relativePath;
  samples::writeFile(target, samples::keyedTranscript(spec));
  return target;
}

ToolResult ScratchHome::run(const std::string &tool, const std::vector<std::string> &arguments,
                            const std::map<std::string, std::string> &environment) const {
  std::map<std::string, std::string> env = {
      {"HOME", path_.string()},
      {"PATH", std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin"},
      {"PARLOVA_PAUSE_SECONDS", "0"},
      {"TZ", "UTC"},
  };
  for (const auto &[key, value] : environment)
    env[key] = value;
  std::string command = "env -i";
  for (const auto &[key, value] : env)
    command += " " + shellQuoted(key + "=" + value);
  command += " " + shellQuoted((fs::path(PARLOVA_BINARY_DIR) / tool).string());
  for (const auto &argument : arguments)
    command += " " + shellQuoted(argument);
  const fs::path out = path_ / ".tool-stdout";
  const fs::path err = path_ / ".tool-stderr";
  command += " > " + shellQuoted(out.string()) + " 2> " + shellQuoted(err.string()) + " < /dev/null";
  const int status = std::system(command.c_str());
  ToolResult result;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = readText(out);
  result.err = readText(err);
  fs::remove(out);
  fs::remove(err);
  return result;
}

pid_t ScratchHome::start(const std::string &tool, const std::vector<std::string> &arguments) const {
  std::vector<std::string> words = {(fs::path(PARLOVA_BINARY_DIR) / tool).string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char *> argv;
  for (auto &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_RDWR);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      dup2(null, fd);
    setenv("HOME", path_.c_str(), 1);
    setenv("PARLOVA_PAUSE_SECONDS", "0", 1);
    setenv("TZ", "UTC", 1);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

void ScratchHome::setSetting(const std::string &key, const std::string &type, const std::string &value) const {
  const auto result = run("parlova-defaults", {"write", "com.hollowmere.parlova", key, type, value});
  if (result.exitCode != 0)
    throw std::runtime_error("parlova-defaults write failed: " + result.err);
}

std::string ScratchHome::readSetting(const std::string &key) const {
  const auto result = run("parlova-defaults", {"read", "com.hollowmere.parlova", key});
  std::string value = result.out;
  while (!value.empty() && value.back() == '\n')
    value.pop_back();
  return result.exitCode == 0 ? value : "(absent)";
}

void ScratchHome::mailTo(const std::string &port) const {
  setSetting("sendEmails", "-bool", "YES");
  setSetting("emailServer", "-string", "127.0.0.1");
  setSetting("emailPort", "-int", port);
  setSetting("emailAddress", "-string", "me@example.org");
  setSetting("emailOutgoing", "-string", "parlova@example.org");
}

InProcessHome::InProcessHome() : savedHome_(std::getenv("HOME") ? std::getenv("HOME") : "") {
  setenv("HOME", home_.path().c_str(), 1);
  setenv("TZ", "UTC", 1);
  tzset();
  fs::create_directories(parlovaFolder());
}

InProcessHome::~InProcessHome() {
  setenv("HOME", savedHome_.c_str(), 1);
  unsetenv("TZ");
  tzset();
}

namespace {

// tests/support/SCRIPT under /usr/bin/python3 with `arguments` and
// --port-file FOLDER/port; its pid, and its port once it has written it.
pid_t startServerScript(const std::string &script, std::vector<std::string> arguments, const fs::path &folder,
                        std::string &port) {
  fs::create_directories(folder);
  std::vector<std::string> words = {"python3", (fs::path(PARLOVA_SOURCE_DIR) / "tests" / "support" / script).string(),
                                    "--port-file", (folder / "port").string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char *> argv;
  for (auto &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    execv("/usr/bin/python3", argv.data());
    _exit(127);
  }
  for (int i = 0; i < 200 && !fs::exists(folder / "port"); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  port = readText(folder / "port");
  return pid;
}

} // namespace

SmtpServer::SmtpServer(const fs::path &folder, const std::string &mode, const std::vector<std::string> &arguments)
    : folder_(folder) {
  std::vector<std::string> words = {"--mode", mode, "--dir", (folder / "mail").string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  pid_ = startServerScript("smtp_server.py", words, folder, port_);
}

SmtpServer::~SmtpServer() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

std::string SmtpServer::received() const {
  return fs::exists(folder_ / "mail" / "received") ? readText(folder_ / "mail" / "received") : "";
}

std::vector<std::string> SmtpServer::messages() const {
  std::vector<std::string> texts;
  for (const auto &name : filesBelow(folder_ / "mail")) {
    if (!name.ends_with(".eml"))
      continue;
    std::string text = readText(folder_ / "mail" / name);
    std::erase(text, '\r');
    texts.push_back(std::move(text));
  }
  return texts;
}

ImapServer::ImapServer(bool tls, const std::string &certificateHost) {
  std::string name = (fs::temp_directory_path() / "parlova-imap-XXXXXX").string();
  if (!mkdtemp(name.data()))
    throw std::runtime_error("no folder for the IMAP server");
  folder_ = name;
  const fs::path script = fs::path(PARLOVA_SOURCE_DIR) / "tests" / "support" / "imap_server.py";
  std::string command = "/usr/bin/python3 " + shellQuoted(script.string()) + " --dir " + shellQuoted(folder_.string()) +
                        " --cert-host " + shellQuoted(certificateHost);
  if (!tls)
    command += " --no-ssl";
  if (std::system(command.c_str()) != 0)
    throw std::runtime_error("the IMAP server did not start: " + log());
  std::istringstream ports(readText(folder_ / "ports"));
  ports >> plainPort_ >> tlsPort_;
}

ImapServer::~ImapServer() {
  const std::string master = readText(folder_ / "run" / "master.pid");
  const pid_t pid = static_cast<pid_t>(std::atol(master.c_str()));
  // The master ends its own processes, which takes it a second or two;
  // nothing waits for that, as the next server listens on other ports.
  if (pid > 0)
    kill(pid, SIGTERM);
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

std::string ImapServer::log() const { return readText(folder_ / "log" / "dovecot.log"); }

std::string ImapServer::reading(const std::string &script) const {
  return pythonReading("import imaplib, sys\n"
                       "imap = imaplib.IMAP4('127.0.0.1', " + plainPort_ + ")\n"
                       "imap.login('chatuser', 's3cret')\n" + script,
                       folder_);
}

DelayProxy::DelayProxy(const fs::path &folder, const std::string &port, int delayMs, int dropAfter)
    : folder_(folder) {
  pid_ = startServerScript("delay_proxy.py",
                           {"--to", port, "--delay", std::to_string(delayMs), "--stats", (folder / "stats").string(),
                            "--drop-after", std::to_string(dropAfter), "--record", (folder / "sent").string()},
                           folder, port_);
}

DelayProxy::~DelayProxy() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

int DelayProxy::connections() const { return std::atoi(readText(folder_ / "stats").c_str()); }

int DelayProxy::roundTrips() const {
  const std::string stats = readText(folder_ / "stats");
  return std::atoi(stats.substr(stats.find(' ') + 1).c_str());
}

std::string DelayProxy::sent() const { return fs::exists(folder_ / "sent") ? readText(folder_ / "sent") : ""; }

FakeIChat::FakeIChat(const fs::path &folder) {
  const fs::path program = folder / "iChat";
  fs::copy_file("/bin/sleep", program, fs::copy_options::overwrite_existing);
  char *argv[] = {const_cast<char *>(program.c_str()), const_cast<char *>("60"), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ) == 0)
    pid_ = pid;
}

FakeIChat::~FakeIChat() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

WebView::WebView(const ScratchHome &home, const std::map<std::string, std::string> &environment) {
  const fs::path out = home.path() / ".web-stdout";
  std::string command = "exec env -i HOME=" + shellQuoted(home.path().string()) + " TZ=UTC PATH=/usr/bin:/bin";
  for (const auto &[key, value] : environment)
    command += " " + shellQuoted(key + "=" + value);
  command += " " + shellQuoted((fs::path(PARLOVA_BINARY_DIR) / "parlova-web").string()) + " --port 0 > " +
             shellQuoted(out.string()) + " 2> " + shellQuoted((home.path() / ".web-stderr").string());
  const char *argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char **>(argv), environ) == 0)
    pid_ = pid;
  for (int i = 0; i < 200 && opening_.find('\n') == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    opening_ = fs::exists(out) ? readText(out) : "";
  }
  if (opening_.find('\n') == std::string::npos)
    throw std::runtime_error("parlova-web printed no address: " + readText(home.path() / ".web-stderr"));
  opening_.resize(opening_.find('\n'));
}

WebView::~WebView() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
}

std::string WebView::origin() const { return opening_.substr(0, opening_.find("/?token=")); }
std::string WebView::port() const { return origin().substr(origin().rfind(':') + 1); }
std::string WebView::token() const { return opening_.substr(opening_.find("token=") + 6); }

int loopbackConnection(unsigned port, bool underWay) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | (underWay ? SOCK_NONBLOCK : 0), 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (socket >= 0 && connect(socket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 &&
      !(underWay && errno == EINPROGRESS)) {
    close(socket);
    return -1;
  }
  return socket;
}

HttpAnswer httpGet(const std::string &port, const std::string &target, const std::vector<std::string> &headers) {
  HttpAnswer answer;
  const int socket = loopbackConnection(static_cast<unsigned>(std::stoi(port)));
  if (socket < 0)
    return answer;
  std::string request = "GET " + target + " HTTP/1.1\r\n";
  for (const std::string &header : headers)
    request += header + "\r\n";
  request += "Connection: close\r\n\r\n";
  for (size_t sent = 0; sent < request.size();) {
    const ssize_t wrote = send(socket, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (wrote <= 0)
      break;
    sent += static_cast<size_t>(wrote);
  }
  std::string received;
  char buffer[65536];
  for (ssize_t got; (got = recv(socket, buffer, sizeof buffer, 0)) > 0;)
    received.append(buffer, static_cast<size_t>(got));
  close(socket);
  const size_t end = received.find("\r\n\r\n");
  answer.head = received.substr(0, end);
  answer.body = end == std::string::npos ? "" : received.substr(end + 4);
  if (received.size() > 12 && received.starts_with("HTTP/1.1 "))
    answer.status = std::stoi(received.substr(9, 3));
  return answer;
}

std::string browsing(const ScratchHome &home, const std::string &steps) {
  const fs::path file = home.path() / ".browser-steps.json";
  writeText(file, steps);
  return home.run("/usr/bin/python3", {(fs::path(PARLOVA_SOURCE_DIR) / "tests" / "support" / "browser.py").string(),
                                       file.string()})
      .out;
}

std::map<std::string, std::string> fakeOsascript(const ScratchHome &home, const std::string &answer,
                                                 const std::string &documents) {
  const fs::path script = home.path() / "bin" / "fake-osascript";
  writeText(script, "#!/bin/sh\nmkdir -p \"$HOME/scripts\"\nn=$(ls \"$HOME/scripts\" | wc -l)\n"
                    "s=$(cat)\nprintf '%s' \"$s\" > \"$HOME/scripts/$n.applescript\"\n"
                    "case \"$s\" in *'number of documents'*) echo '" + documents + "' ;; *) echo '" + answer +
                        "' ;; esac\n");
  fs::permissions(script, fs::perms::owner_all);
  return {{"PARLOVA_OSASCRIPT", script.string()}};
}

void installShippedFiles(const ScratchHome &home) {
  const fs::path folder = home.path() / "Library" / "Parlova";
  fs::create_directories(folder / "Images");
  for (const auto &shipped : fs::directory_iterator(fs::path(PARLOVA_SOURCE_DIR) / "resources"))
    fs::copy_file(shipped.path(),
                  (shipped.path().filename() == "pdf.png" ? folder / "Images" : folder) / shipped.path().filename(),
                  fs::copy_options::overwrite_existing);
}

ToolResult inBrowser(const ScratchHome &home, const fs::path &page) {
  return home.run("/usr/bin/chromium", {"--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr",
                                        "--v=0", "--user-data-dir=" + (home.path() / "browser").string(),
                                        "--dump-dom", "file://" + page.string()});
}

LocalLinks localLinks(const std::string &page, const fs::path &folder) {
  static const std::regex target(R"#((?:href|src)="([^"]*)")#");
  LocalLinks links;
  for (auto found = std::sregex_iterator(page.begin(), page.end(), target); found != std::sregex_iterator(); ++found) {
    std::string address = (*found)[1];
    for (size_t at = address.find("&amp;"); at != std::string::npos; at = address.find("&amp;", at + 1))
      address.replace(at, 5, "&");
    if (address.find("://") != std::string::npos)
      continue;
    std::string path;
    for (size_t at = 0; at < address.size(); ++at) {
      if (address[at] == '%' && at + 2 < address.size() && std::isxdigit(address[at + 1]) &&
          std::isxdigit(address[at + 2])) {
        path += static_cast<char>(std::stoi(address.substr(at + 1, 2), nullptr, 16));
        at += 2;
      } else {
        path += address[at];
      }
    }
    ++links.count;
    if (!fs::exists(folder / path))
      links.missing.push_back(address);
  }
  return links;
}

samples::TranscriptSpec simpleChat(const std::string &buddy) {
  samples::TranscriptSpec spec;
  const samples::Account other{"AIM", buddy};
  const samples::Account me{"AIM", "parlovauser"};
  spec.others = {other};
  spec.messages = {samples::says(other, 200000000, "hi there"), samples::says(me, 200000030, "hello!")};
  return spec;
}

std::string readText(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

void writeText(const fs::path &path, const std::string &text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

std::vector<std::string> filesBelow(const fs::path &folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(folder, error); !error && it != fs::recursive_directory_iterator();
       it.increment(error))
    if (!it->is_directory())
      names.push_back(it->path().lexically_relative(folder).generic_string());
  std::sort(names.begin(), names.end());
  return names;
}

size_t countOccurrences(const std::string &text, const std::string &needle) {
  size_t count = 0;
  for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size()))
    ++count;
  return count;
}

// What a Python script prints, given a file.
std::string pythonReading(const std::string &script, const fs::path &file) {
  const fs::path output = fs::temp_directory_path() / ("parlova-python-" + std::to_string(getpid()));
  const std::string command = "/usr/bin/python3 -c " + shellQuoted(script) + " " + shellQuoted(file.string()) +
                              " > " + shellQuoted(output.string()) + " 2>&1";
  std::system(command.c_str());
  std::string read = readText(output);
  fs::remove(output);
  while (!read.empty() && read.back() == '\n')
    read.pop_back();
  return read;
}

std::string plistlibReading(const fs::path &file) {
  return pythonReading("import json, plistlib, sys\n"
                       "try:\n"
                       "    print(json.dumps(plistlib.load(open(sys.argv[1], 'rb')), default=str, sort_keys=True))\n"
                       "except Exception as error:\n"
                       "    print('refused: %s' % error)\n",
                       file);
}

std::string emailHeadersReading(const std::string &mail) {
  const fs::path file = fs::temp_directory_path() / ("parlova-mail-" + std::to_string(getpid()));
  writeText(file, mail);
  const std::string read = pythonReading("import email, email.policy, sys\n"
                                         "message = email.message_from_bytes(open(sys.argv[1], 'rb').read(),\n"
                                         "                                   policy=email.policy.default)\n"
                                         "for name, value in message.items():\n"
                                         "    print('%s: %s' % (name, value))\n",
                                         file);
  fs::remove(file);
  return read;
}

std::vector<uint8_t> fromHex(std::string_view hex) {
  std::vector<uint8_t> bytes;
  int high = -1;
  bool comment = false;
  for (const char c : hex) {
    const auto u = static_cast<unsigned char>(c);
    comment = c == '#' || (comment && c != '\n');
    if (comment || !std::isxdigit(u))
      continue;
    const int nibble = std::isdigit(u) ? c - '0' : std::tolower(u) - 'a' + 10;
    if (high < 0) {
      high = nibble;
    } else {
      bytes.push_back(static_cast<uint8_t>(high << 4 | nibble));
      high = -1;
    }
  }
  return bytes;
}

std::vector<uint8_t> hexData(const std::string &name) {
  return fromHex(readText(fs::path(PARLOVA_SOURCE_DIR) / "tests" / "data" / name));
}

} // namespace parlova::testing
