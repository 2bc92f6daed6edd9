// Runs the built tools the way a user does: in a scratch home folder, with
// real files and a real environment.
#pragma once

#include <filesystem>
#include <sys/types.h>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "samples/TranscriptWriter.h"

namespace parlova::testing {

struct ToolResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// A temporary home folder, removed again at the end of the test.
class ScratchHome {
public:
  ScratchHome();
  ~ScratchHome();
  ScratchHome(const ScratchHome &) = delete;
  ScratchHome &operator=(const ScratchHome &) = delete;

  const std::filesystem::path &path() const { return path_; }
  std::filesystem::path chats() const { return path_ / "Documents" / "iChats"; }
  std::filesystem::path archive() const { return path_ / "Documents" / "iChats (Parlovaed)"; }

  // Writes a transcript into the transcript folder under `relativePath`.
  std::filesystem::path addTranscript(const std::string &relativePath, const samples::TranscriptSpec &spec) const;

  // Runs a tool from the build folder with HOME set here and no pause
  // between entries; `environment` adds or overrides variables.
  ToolResult run(const std::string &tool, const std::vector<std::string> &arguments = {},
                 const std::map<std::string, std::string> &environment = {}) const;

  // The same run started in the background, its output dropped: the
  // caller waits for it or ends it.
  pid_t start(const std::string &tool, const std::vector<std::string> &arguments = {}) const;

  // parlova-defaults write com.hollowmere.parlova KEY TYPE VALUE
  void setSetting(const std::string &key, const std::string &type, const std::string &value) const;
  std::string readSetting(const std::string &key) const;
  // Mail on, from parlova@example.org to me@example.org through a server
  // on loopback at `port`.
  void mailTo(const std::string &port) const;

private:
  std::filesystem::path path_;
};

// Points this process at a scratch home, in UTC so that dates print the
// same everywhere, and restores HOME and TZ afterwards.
class InProcessHome {
public:
  InProcessHome();
  ~InProcessHome();
  InProcessHome(const InProcessHome &) = delete;
  InProcessHome &operator=(const InProcessHome &) = delete;

  const std::filesystem::path &path() const { return home_.path(); }
  // ~/Library/Parlova, created.
  std::filesystem::path parlovaFolder() const { return home_.path() / "Library" / "Parlova"; }

private:
  ScratchHome home_;
  std::string savedHome_;
};

// tests/support/smtp_server.py in one of its modes ("accept", "auth", "refuse",
// "silent"), listening on loopback for as long as the object lives.
class SmtpServer {
public:
  SmtpServer(const std::filesystem::path &folder, const std::string &mode,
             const std::vector<std::string> &arguments = {});
  ~SmtpServer();
  SmtpServer(const SmtpServer &) = delete;
  SmtpServer &operator=(const SmtpServer &) = delete;

  const std::string &port() const { return port_; }
  // Every message received so far, in arrival order, with bare line feeds.
  std::vector<std::string> messages() const;
  // Every byte a recording server received.
  std::string received() const;

private:
  std::filesystem::path folder_;
  int pid_ = -1;
  std::string port_;
};

// A private Dovecot IMAP server (tests/support/imap_server.py) on loopback,
// with the user "chatuser", password "s3cret", for as long as the object
// lives, in a folder of its own (Dovecot's users must be able to reach it,
// which they cannot inside a scratch home). Without TLS it offers neither
// STARTTLS nor an implicit TLS port; its certificate names `certificateHost`.
class ImapServer {
public:
  explicit ImapServer(bool tls = true, const std::string &certificateHost = "127.0.0.1");
  ~ImapServer();
  ImapServer(const ImapServer &) = delete;
  ImapServer &operator=(const ImapServer &) = delete;

  const std::string &plainPort() const { return plainPort_; }
  const std::string &tlsPort() const { return tlsPort_; }
  std::filesystem::path certificate() const { return folder_ / "cert.pem"; }
  std::string log() const;
  // What /usr/bin/python3 prints for `script`, which finds a logged-in
  // imaplib.IMAP4 as `imap`.
  std::string reading(const std::string &script) const;

private:
  std::filesystem::path folder_;
  std::string plainPort_;
  std::string tlsPort_;
};

// tests/support/delay_proxy.py in front of a server on loopback at `port`:
// every byte held `delayMs` each way, each connection cut after
// `dropAfter` answers (0: never), what the client sends kept.
class DelayProxy {
public:
  DelayProxy(const std::filesystem::path &folder, const std::string &port, int delayMs, int dropAfter = 0);
  ~DelayProxy();
  DelayProxy(const DelayProxy &) = delete;
  DelayProxy &operator=(const DelayProxy &) = delete;

  const std::string &port() const { return port_; }
  int connections() const;
  int roundTrips() const;
  std::string sent() const;

private:
  std::filesystem::path folder_;
  int pid_ = -1;
  std::string port_;
};

// A process whose command name is exactly "iChat", for as long as it lives.
class FakeIChat {
public:
  explicit FakeIChat(const std::filesystem::path &folder);
  ~FakeIChat();
  FakeIChat(const FakeIChat &) = delete;
  FakeIChat &operator=(const FakeIChat &) = delete;

private:
  int pid_ = -1;
};

// parlova-web on a free loopback port with HOME at `home`, for as long as
// the object lives.
class WebView {
public:
  explicit WebView(const ScratchHome &home, const std::map<std::string, std::string> &environment = {});
  ~WebView();
  WebView(const WebView &) = delete;
  WebView &operator=(const WebView &) = delete;

  // The first line it printed: the address to open, with the token.
  const std::string &openingAddress() const { return opening_; }
  std::string origin() const;                         // http://127.0.0.1:PORT
  std::string port() const;
  std::string token() const;
  int pid() const { return pid_; }

private:
  int pid_ = -1;
  std::string opening_;
};

struct HttpAnswer {
  int status = 0;
  std::string head; // the status line and the headers
  std::string body;
};
// A TCP connection to 127.0.0.1:`port`, or -1. `underWay`: the socket does
// not block, and is returned while its handshake is still under way.
int loopbackConnection(unsigned port, bool underWay = false);

// One request on a connection of its own to 127.0.0.1:`port`, the target
// and the header lines sent as given.
HttpAnswer httpGet(const std::string &port, const std::string &target, const std::vector<std::string> &headers);

// tests/support/browser.py doing `steps` (its JSON list) in headless
// Chromium: its JSON report.
std::string browsing(const ScratchHome &home, const std::string &steps);

// An osascript stand-in, as the environment to run a tool with: it keeps
// every script it is given as ~/scripts/N.applescript and answers
// `documents` when asked for iChat's number of documents, else `answer`.
std::map<std::string, std::string> fakeOsascript(const ScratchHome &home, const std::string &answer,
                                                 const std::string &documents = "");

// Copies the shipped templates, word lists and icon where an install puts
// them.
void installShippedFiles(const ScratchHome &home);

// A page in headless Chromium: the page after its scripts ran (out) and
// every console message (err).
ToolResult inBrowser(const ScratchHome &home, const std::filesystem::path &page);
// The links and sources of a page that lead to no file below `folder`
// (entities and percent escapes decoded, addresses with a scheme passed over), and how
// many local ones there are.
struct LocalLinks {
  int count = 0;
  std::vector<std::string> missing;
};
LocalLinks localLinks(const std::string &page, const std::filesystem::path &folder);

// A short two-party transcript between the user and `buddy`.
samples::TranscriptSpec simpleChat(const std::string &buddy = "alice1979");

std::string readText(const std::filesystem::path &path);
void writeText(const std::filesystem::path &path, const std::string &text);
// The names of the files below a folder, relative to it, sorted.
std::vector<std::string> filesBelow(const std::filesystem::path &folder);
size_t countOccurrences(const std::string &text, const std::string &needle);
// What /usr/bin/python3 running `script` prints (stdout and stderr, the
// last line break dropped), given `file` as its argument.
std::string pythonReading(const std::string &script, const std::filesystem::path &file);
// A property list file as Python's plistlib reads it, as JSON with every
// character beyond ASCII escaped (dates and data as Python prints them);
// "refused: ..." with plistlib's error when it cannot read the file.
std::string plistlibReading(const std::filesystem::path &file);
// A mail's headers as Python's email package reads them (default policy,
// encoded words decoded): "Name: value" lines, in order.
std::string emailHeadersReading(const std::string &mail);
// Bytes spelled as hexadecimal digits; anything else between them, and
// everything from a "#" to the end of its line, is ignored.
std::vector<uint8_t> fromHex(std::string_view hex);
// The bytes a file in tests/data spells that way.
std::vector<uint8_t> hexData(const std::string &name);

} // namespace parlova::testing
