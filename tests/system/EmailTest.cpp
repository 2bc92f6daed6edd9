// The transcript email through a real SMTP server on loopback: what the
// server receives, and what each way of failing logs, reports and leaves.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <chrono>
#include <regex>
#include <sstream>
#include <tuple>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/Unicode.h"
#include "mail/TlsTunnel.h"
#include "samples/Backlog.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

class Email : public ::testing::Test {
protected:
  fs::path addChat() {
    auto spec = simpleChat("alice");
    samples::RunSpec styled = samples::text("caf\xC3\xA9");
    styled.color = samples::ColorSpec{samples::ColorSpec::Space::CalibratedRGB, {1, 0, 0}};
    spec.messages[0].runs.push_back(styled);
    return home_.addTranscript("Alice on 2006-01-01.ichat", spec);
  }
  bool archived() const { return fs::exists(home_.archive() / "Alice on 2006-01-01.ichat"); }
  // The plain rendering of addChat()'s chat as parlova-inspect shows it, in
  // a file for Python to compare a stored message with (sameText below).
  fs::path plainRendering() {
    const fs::path transcript = addChat();
    writeText(home_.path() / "plain.txt", home_.run("parlova-inspect", {"--plain", transcript.string()}).out);
    fs::remove(transcript);
    return home_.path() / "plain.txt";
  }
  // Python that reads a message as a strict reader does (policy.default):
  // same(raw, plain) is whether every text part names its character set
  // and the plain part's text is the plain rendering.
  static constexpr const char *kSameText =
      "import email, email.policy, sys\n"
      "def same(raw, plain):\n"
      "    m = email.message_from_bytes(raw, policy=email.policy.default)\n"
      "    parts = [p for p in m.walk() if p.get_content_maintype() == 'text']\n"
      "    labelled = len(parts) == 2 and all(p.get_content_charset() == 'utf-8' for p in parts)\n"
      "    text = m.get_body(('plain',)).get_content().replace('\\r\\n', '\\n')\n"
      "    return labelled and text == open(plain, encoding='utf-8').read()\n";
  // A message without what differs from one sending to the next: the date,
  // the message id and the MIME boundary.
  static std::string withoutDateAndId(std::string mail) {
    const std::string marker = "boundary=\"";
    if (const size_t at = mail.find(marker); at != std::string::npos) {
      const std::string boundary = mail.substr(at + marker.size(), mail.find('"', at + marker.size()) - at - marker.size());
      for (size_t found = mail.find(boundary); found != std::string::npos; found = mail.find(boundary, found))
        mail.replace(found, boundary.size(), "BOUNDARY");
    }
    std::string kept;
    size_t start = 0;
    while (start < mail.size()) {
      const size_t end = mail.find('\n', start);
      const std::string line = mail.substr(start, end == std::string::npos ? std::string::npos : end - start + 1);
      if (!line.starts_with("Date: ") && !line.starts_with("Message-ID: ") && !line.starts_with("X-Peer: ") &&
          !line.starts_with("X-MailFrom: ") && !line.starts_with("X-RcptTo: "))
        kept += line;
      start = end == std::string::npos ? mail.size() : end + 1;
    }
    return kept;
  }


  ScratchHome home_;
};

TEST_F(Email, TheServerReceivesBothRenderingsInOrder) {
  SmtpServer server(home_.path() / "smtp", "accept");
  home_.mailTo(server.port());
  addChat();
  const auto result = home_.run("parlova");
  EXPECT_EQ(result.exitCode, 0);
  ASSERT_EQ(server.messages().size(), 1u) << result.err;
  const std::string mail = server.messages().front();
  EXPECT_NE(mail.find("Subject: [IM] Alice\n"), std::string::npos) << mail;
  EXPECT_NE(mail.find("From: parlova@example.org\n"), std::string::npos);
  EXPECT_NE(mail.find("To: me@example.org\n"), std::string::npos);
  EXPECT_NE(mail.find("Content-Type: multipart/alternative; charset=\"utf-8\""), std::string::npos);
  const auto plain = mail.find("Content-Type: text/plain\n\nSent by Parlova ( http://www.hollowmere.com/parlova/ )alice: hi therecaf\xC3\xA9\n");
  const auto html = mail.find("Content-Type: text/html; charset=\"utf-8\"\n\n<html><head><title>Parlova log</title>");
  ASSERT_NE(plain, std::string::npos) << mail;
  ASSERT_NE(html, std::string::npos) << mail;
  EXPECT_LT(plain, html);
  EXPECT_NE(mail.find("<font color=\"#ff0000\">caf\xC3\xA9</font>"), std::string::npos);
  EXPECT_TRUE(archived());
}

// Names come from file names anyone may have made: a line break must not
// start a header of their choosing, and every name arrives as typed (as far
// as it is text) in a real mail reader's parser.
TEST_F(Email, HeadersHoldExactlyWhatWasMeantWhateverTheNamesHold) {
  SmtpServer server(home_.path() / "smtp", "accept");
  home_.mailTo(server.port());
  std::string controls = "a";
  for (char c = 1; c < 0x20; ++c)
    controls += c;
  const std::vector<std::pair<std::string, std::string>> names = {
      {"Eve\r\nX-Injected: 1\r\n\r\nbody", "[IM] Eve X-Injected: 1 body"},
      {"Jos\xC3\xA9", "[IM] Jos\xC3\xA9"},
      {"Al\xE9x", "[IM] Al\xEF\xBF\xBDx"},
      {controls + "b", "[IM] a b"}};
  std::vector<std::string> expected;
  for (const auto &[name, subject] : names) {
    home_.addTranscript(name + " on 2006-01-01 at 10.00.ichat", simpleChat("alex"));
    expected.push_back(subject);
  }
  for (size_t run = 0; run < names.size(); ++run)
    home_.run("parlova");
  std::vector<std::string> subjects;
  for (const std::string &mail : server.messages()) {
    const std::string headers = emailHeadersReading(mail);
    EXPECT_EQ(headers.find("\nX-Injected"), std::string::npos) << headers;
    const size_t at = headers.find("Subject: ");
    ASSERT_NE(at, std::string::npos) << headers;
    subjects.push_back(headers.substr(at + 9, headers.find('\n', at) - at - 9));
  }
  std::sort(subjects.begin(), subjects.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(subjects, expected);
}

// Into a local Maildir: the message the SMTP path sends, dated by the chat
// (header and file), stored once however often its transcript comes by.
TEST_F(Email, IntoAMaildirGoesTheSameMessageDatedByTheChatAndStoredOnce) {
  SmtpServer server(home_.path() / "smtp", "accept");
  home_.mailTo(server.port());
  addChat();
  home_.run("parlova");
  ASSERT_EQ(server.messages().size(), 1u);
  const std::string sent = withoutDateAndId(server.messages().front());
  fs::remove_all(home_.archive());
  // Through SMTP too, when asked: the same message, dated by the chat.
  home_.setSetting("emailDateFromChat", "-bool", "YES");
  addChat();
  home_.run("parlova");
  ASSERT_EQ(server.messages().size(), 2u);
  EXPECT_EQ(withoutDateAndId(server.messages().back()), sent);
  EXPECT_NE(server.messages().back().find("Date: Fri, 4 May 2007 19:33:20 +0000\n"), std::string::npos)
      << server.messages().back();
  fs::remove_all(home_.archive());

  home_.setSetting("emailDelivery", "-string", "Maildir");
  home_.setSetting("emailMaildir", "-string", "~/Mail");
  for (int again = 0; again < 2; ++again) {
    addChat(); // a run that died before the move brings it back
    const auto result = home_.run("parlova");
    EXPECT_EQ(result.err.find("is in " + (home_.path() / "Mail/.Chats").string() + " already") != std::string::npos,
              again == 1)
        << result.err;
  }
  EXPECT_EQ(server.messages().size(), 2u) << "nothing more through SMTP";
  const fs::path folder = home_.path() / "Mail" / ".Chats";
  const auto stored = filesBelow(folder / "cur");
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_TRUE(stored[0].ends_with(":2,S"));
  EXPECT_EQ(filesBelow(folder / "tmp"), std::vector<std::string>{});
  EXPECT_EQ(pythonReading(std::string(kSameText) + "print(same(open(sys.argv[1], 'rb').read(), '" +
                              plainRendering().string() + "'))",
                          folder / "cur" / stored[0]),
            "True");
  // 200000000 seconds after 2001-01-01: the chat's first message.
  const std::string read = pythonReading(
      "import email.utils, mailbox, os, sys\n"
      "for message in mailbox.Maildir(sys.argv[1], factory=None, create=False):\n"
      "    print(int(email.utils.parsedate_to_datetime(message['Date']).timestamp()), message['Message-ID'])\n"
      "cur = os.path.join(sys.argv[1], 'cur')\n"
      "print(*[int(os.path.getmtime(os.path.join(cur, name))) for name in os.listdir(cur)])\n",
      folder);
  EXPECT_TRUE(std::regex_match(read, std::regex("1178307200 <parlova\\.\\d+\\.[0-9a-f]{16}@example\\.org>\n1178307200")))
      << read;

}

// A backlog caught up into a Maildir: one message per transcript, each
// dated by its own chat (the backlog spans 2004 to 2014).
TEST_F(Email, ABacklogCaughtUpIntoAMaildirIsOneMessageEachDatedByItsChat) {
  home_.mailTo("25");
  home_.setSetting("emailDelivery", "-string", "maildir");
  home_.setSetting("emailMaildir", "-string", (home_.path() / "Maildir").string());
  home_.setSetting("emailFolder", "-string", "");
  samples::writeBacklog(home_.chats(), {.transcripts = 200, .seed = 7, .people = 20, .longestChat = 20});
  const auto result = home_.run("parlova", {"--catch-up", "--quiet"});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(pythonReading("import email.utils, mailbox, sys\n"
                          "box = mailbox.Maildir(sys.argv[1], factory=None, create=False)\n"
                          "ids = [m['Message-ID'] for m in box]\n"
                          "years = [email.utils.parsedate_to_datetime(m['Date']).year for m in box]\n"
                          "print(len(ids), len(set(ids)), all(2004 <= year < 2015 for year in years))\n",
                          home_.path() / "Maildir"),
            "200 200 True");
}

// A backlog processed with mail off, mailed afterwards: through SMTP once
// per address (by the record of what was sent), into a Maildir once (by
// Message-ID), a span of days first and then the rest; nothing else moves.
TEST_F(Email, ChatsProcessedWithoutMailAreMailedLaterOnceWhereverTheyGo) {
  samples::writeBacklog(home_.chats(), {.transcripts = 8, .seed = 7, .people = 5, .longestChat = 10});
  ASSERT_EQ(home_.run("parlova", {"--catch-up", "--yes"}).exitCode, 0);
  const auto off = home_.run("parlova", {"--mail-processed"});
  EXPECT_EQ(off.exitCode, 1);
  EXPECT_NE(off.err.find("] Mail is off, so nothing is mailed;"), std::string::npos) << off.err;

  SmtpServer server(home_.path() / "smtp", "accept");
  home_.mailTo(server.port());
  home_.setSetting("emailDateFromChat", "-bool", "YES");
  const auto processed = filesBelow(home_.archive());
  const auto library = filesBelow(home_.path() / "Library/Parlova");
  const std::string year = "import email, email.policy, sys\n"
                           "m = email.message_from_file(open(sys.argv[1]), policy=email.policy.default)\n"
                           "print(m['Date'].datetime.year >= 2009)\n";

  const auto first = home_.run("parlova", {"--mail-processed", "--since", "2009-01-01"});
  EXPECT_EQ(first.exitCode, 0) << first.err;
  const size_t later = server.messages().size();
  EXPECT_GT(later, 0u);
  EXPECT_LT(later, 8u);
  EXPECT_NE(first.err.find("] Mailing finished: " + std::to_string(later) + " mailed, 0 delivered before, 0 did not "
                           "load, " + std::to_string(8 - later) + " outside the dates, "),
            std::string::npos)
      << first.err;
  for (int round = 0; round < 2; ++round)
    EXPECT_EQ(home_.run("parlova", {"--mail-processed"}).exitCode, 0);
  const auto messages = server.messages();
  ASSERT_EQ(messages.size(), 8u) << "each chat once to the address";
  for (size_t i = 0; i < messages.size(); ++i) {
    const fs::path file = home_.path() / ("sent" + std::to_string(i));
    writeText(file, messages[i]);
    EXPECT_EQ(pythonReading(year, file), i < later ? "True" : "False")
        << "the span's chats first: " << i;
  }

  home_.setSetting("emailDelivery", "-string", "maildir");
  for (int round = 0; round < 2; ++round)
    EXPECT_EQ(home_.run("parlova", {"--mail-processed", "--quiet"}).exitCode, 0);
  EXPECT_EQ(pythonReading("import mailbox, sys\n"
                          "box = mailbox.Maildir(sys.argv[1], factory=None, create=False)\n"
                          "print(len(set(m['Message-ID'] for m in box)), len(box))\n",
                          home_.path() / "Maildir/.Chats"),
            "8 8");
  EXPECT_EQ(filesBelow(home_.archive()), processed);
  auto after = filesBelow(home_.path() / "Library/Parlova");
  std::erase(after, ".smtp-sent");
  EXPECT_EQ(after, library) << "no archive, count or page changes";
}

// Every delivery's ways of failing, each with what it logs, what the
// settings pane is told and whether the transcript is archived (a refusal)
// or waits (nothing handed over); and a login that works, for contrast.
TEST_F(Email, EachDeliveryAndFailureLogsReportsAndArchivesOrKeepsTheTranscript) {
  // "554 5.7.1 Me..." read two bytes to a character.
  const std::string reply = "554 5.7.1 Message refused";
  std::u16string units;
  for (size_t i = 0; i + 1 < 24; i += 2)
    units += static_cast<char16_t>(static_cast<uint8_t>(reply[i]) | static_cast<uint8_t>(reply[i + 1]) << 8);
  struct Case {
    const char *name;
    const char *delivery;
    const char *server; // the loopback server's mode; empty: nothing listens
    std::vector<std::pair<std::string, std::string>> settings;
    std::string logged;  // a line of the log
    std::string report;  // what reportThis starts with; empty: not set
    bool archived;
    size_t delivered;
  };
  const Case cases[] = {
      {"login", "smtp", "auth", {{"emailPassword", "secret"}}, "preparing to move", "", true, 1},
      {"login refused", "smtp", "auth", {{"emailPassword", "wrong"}},
       "The SMTP server rejected the username/password.", "login rejected", true, 0},
      // The password from a keyring: the command's first line, never shown.
      {"password command", "smtp", "auth", {{"emailPasswordCommand", "printf 'secret\\r\\nsecond line'"}},
       "preparing to move", "", true, 1},
      {"password command fails", "smtp", "auth", {{"emailPasswordCommand", "echo secret; exit 1"}},
       "emailPasswordCommand failed: exit 1", "emailPasswordCommand failed: exit 1", true, 0},
      {"password command silent", "smtp", "auth", {{"emailPasswordCommand", "true"}},
       "emailPasswordCommand failed: it printed no password",
       "emailPasswordCommand failed: it printed no password", true, 0},
      {"message refused", "smtp", "refuse", {}, "An error occurred while sending email:", utf16ToUtf8(units), true, 0},
      {"timed out", "smtp", "silent", {}, "The attempt to send email timed out.", "server not responding", true, 0},
      {"unreachable", "smtp", "", {}, "Unable to connect to mail server.", "SMTP unreachable", false, 0},
      // Refused before anything is touched.
      {"no server", "smtp", "", {{"emailServer", ""}}, "Mail is on, but the settings are not complete: emailServer",
       "Mail settings: emailServer is not set", false, 0},
      {"timed out", "imap", "silent", {}, "The attempt to send email timed out.", "server not responding", true, 0},
      // Into a mailbox a failed login waits: a locked keyring must not
      // archive a backlog without its mail.
      {"password command fails", "imap", "", {{"emailPasswordCommand", "exit 1"}},
       "Could not store the mail: emailPasswordCommand failed: exit 1", "emailPasswordCommand failed: exit 1", false, 0},
      {"unreachable", "imap", "", {}, "Unable to connect to mail server.", "IMAP unreachable", false, 0},
      // Nothing half-written anywhere.
      {"not writable", "maildir", "", {{"emailMaildir", "~/Mail"}},
       "Could not store the mail: Maildir not writable: cannot make " + (home_.path() / "Mail/.Chats").string(),
       "Maildir not writable: cannot make", true, 0},
  };
  writeText(home_.path() / "Mail", "not a folder");
  for (const Case &c : cases) {
    const std::string name = std::string(c.delivery) + ", " + c.name;
    std::optional<SmtpServer> server;
    if (*c.server)
      server.emplace(home_.path() / (std::string(c.server) + c.delivery + c.name), c.server);
    home_.mailTo(server ? server->port() : "1"); // nothing listens on port 1
    home_.setSetting("emailDelivery", "-string", c.delivery);
    // Only the low eight bits count; the login only against a server that asks for it.
    home_.setSetting("emailNeedsUsername", "-int", std::string(c.server) == "auth" ? "257" : "0");
    home_.setSetting("emailUsername", "-string", "parlova");
    home_.setSetting("emailPassword", "-string", "wrong");
    home_.setSetting("emailPasswordCommand", "-string", "");
    for (const auto &[key, value] : c.settings)
      home_.setSetting(key, "-string", value);
    const auto transcript = addChat();
    const auto result = home_.run("parlova", {}, {{"PARLOVA_SMTP_TIMEOUT_SECONDS", "2"}});
    EXPECT_EQ(result.exitCode, 0) << name;
    EXPECT_NE(result.err.find("] " + c.logged), std::string::npos) << name << "\n" << result.err;
    EXPECT_EQ(result.err.find("secret"), std::string::npos) << name << ": a password in the log";
    EXPECT_EQ(home_.readSetting("reportThis").rfind(c.report.empty() ? "(absent)" : c.report, 0), 0u)
        << name << ": " << home_.readSetting("reportThis");
    EXPECT_EQ(archived(), c.archived) << name;
    EXPECT_EQ(fs::exists(transcript), !c.archived) << name;
    if (!c.archived && !c.report.starts_with("Mail settings")) {
      EXPECT_NE(result.err.find("] *****FINISH***** An error occurred while sending email. This log has been "
                                "skipped.\n"),
                std::string::npos)
          << name;
    }
    EXPECT_EQ(server ? server->messages().size() : 0u, c.delivered) << name;
    EXPECT_EQ(home_.readSetting("errorStatus"), "(absent)") << name;
    home_.run("parlova-defaults", {"delete", "com.hollowmere.parlova", "reportThis"});
    fs::remove_all(home_.archive());
    fs::remove_all(home_.chats());
  }
}

TEST_F(Email, AThirdFailureStandsAndStopsTheRun) {
  SmtpServer server(home_.path() / "smtp", "refuse");
  home_.mailTo(server.port());
  home_.setSetting("emailFails", "-int", "3");
  addChat();
  const auto result = home_.run("parlova", {}, {{"PARLOVA_OSASCRIPT", "/bin/false"}});
  EXPECT_EQ(home_.readSetting("errorStatus"), "2");
  EXPECT_NE(result.err.find("] an error has occurred while emailing?\n"), std::string::npos) << result.err;
  EXPECT_FALSE(archived());
}

TEST_F(Email, UniqueSubjectsCountUp) {
  SmtpServer server(home_.path() / "smtp", "accept");
  home_.mailTo(server.port());
  home_.setSetting("forceUniqueSubjects", "-bool", "YES");
  for (int run = 0; run < 2; ++run) {
    addChat();
    home_.run("parlova");
    fs::remove_all(home_.archive());
  }
  ASSERT_EQ(server.messages().size(), 2u);
  for (const auto &mail : server.messages())
    EXPECT_NE(mail.find("Subject: [IM] Alice ("), std::string::npos) << mail;
  EXPECT_EQ(home_.readSetting("subjectNumber"), "2");
}

// Secured mail against real TLS servers on loopback, with certificates made
// for the test.
class SecuredEmail : public Email {
protected:
  static void SetUpTestSuite() {
    certificates_ = fs::temp_directory_path() / ("parlova-certificates-" + std::to_string(getpid()));
    const std::string script = (fs::path(PARLOVA_SOURCE_DIR) / "tests" / "support" / "make_certificates.sh").string();
    ASSERT_EQ(std::system(("bash '" + script + "' '" + certificates_.string() + "'").c_str()), 0);
  }
  static void TearDownTestSuite() { fs::remove_all(certificates_); }
  static std::vector<std::string> serving(const std::string &certificate) {
    return {"--cert", (certificates_ / (certificate + ".pem")).string(), "--key",
            (certificates_ / (certificate + ".key")).string()};
  }
  void logIn() {
    home_.setSetting("emailNeedsUsername", "-int", "1");
    home_.setSetting("emailUsername", "-string", "parlova");
    home_.setSetting("emailPassword", "-string", "secret");
  }
  void secure(const std::string &port, const std::string &security) {
    home_.mailTo(port);
    logIn();
    home_.setSetting("emailServer", "-string", "localhost");
    home_.setSetting("emailSecurity", "-string", security);
    home_.setSetting("emailCAFile", "-string", (certificates_ / "ca.pem").string());
  }
  inline static fs::path certificates_;
};

TEST_F(SecuredEmail, StartTlsAndImplicitTlsDeliverTheSameMessageAsPlain) {
  std::string plainMail;
  {
    SmtpServer server(home_.path() / "plain", "auth");
    home_.mailTo(server.port());
    logIn();
    addChat();
    home_.run("parlova");
    ASSERT_EQ(server.messages().size(), 1u);
    plainMail = withoutDateAndId(server.messages().front());
    fs::remove_all(home_.archive());
  }
  for (const std::string security : {"starttls", "tls"}) {
    SmtpServer server(home_.path() / security, security, serving("localhost"));
    secure(server.port(), security);
    addChat();
    const auto result = home_.run("parlova");
    ASSERT_EQ(server.messages().size(), 1u) << security << "\n" << result.err;
    EXPECT_EQ(withoutDateAndId(server.messages().front()), plainMail) << security;
    EXPECT_TRUE(archived());
    EXPECT_EQ(home_.readSetting("reportThis"), "(absent)") << security;
    fs::remove_all(home_.archive());
  }
}

TEST_F(SecuredEmail, AServerWithoutStartTlsNeverSeesTheLogin) {
  SmtpServer server(home_.path() / "smtp", "no-starttls");
  secure(server.port(), "starttls");
  addChat();
  const auto result = home_.run("parlova");
  EXPECT_NE(result.err.find("] Could not secure the connection to the mail server: server does not offer STARTTLS\n"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(home_.readSetting("reportThis"), "server does not offer STARTTLS");
  EXPECT_EQ(home_.readSetting("emailFails"), "0") << "counted, then reset once the transcript was archived";
  const std::string received = server.received();
  EXPECT_NE(received.find("EHLO"), std::string::npos) << received;
  EXPECT_EQ(received.find("AUTH"), std::string::npos) << received;
  EXPECT_EQ(received.find("cGFybG92YQ"), std::string::npos) << "the user name in base64";
  EXPECT_EQ(received.find("c2VjcmV0"), std::string::npos) << "the password in base64";
  EXPECT_EQ(received.find("secret"), std::string::npos);
  EXPECT_EQ(received.find("MAIL FROM"), std::string::npos);
  EXPECT_TRUE(archived()) << "handled as a refused message";
}

TEST_F(SecuredEmail, ServersThatFloodTrickleOrDropEndTheExchangeInTime) {
  const struct {
    const char *mode;
    const char *reason; // empty: any refusal, what matters is how soon
  } cases[] = {{"flood", "the server did not greet as a mail server does"},
               {"trickle", "the server did not answer within 3 seconds"},
               {"stall", "TLS handshake failed: the server did not finish it within 3 seconds"},
               {"drop", ""}};
  for (const auto &server : cases) {
    SmtpServer misbehaving(home_.path() / server.mode, server.mode, serving("localhost"));
    secure(misbehaving.port(), "starttls");
    addChat();
    const auto started = std::chrono::steady_clock::now();
    rusage before{};
    getrusage(RUSAGE_CHILDREN, &before);
    const auto result = home_.run("parlova", {}, {{"PARLOVA_SMTP_TIMEOUT_SECONDS", "3"}});
    rusage after{};
    getrusage(RUSAGE_CHILDREN, &after);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const auto cpu = [](const rusage &usage) {
      return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
             static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    };
    EXPECT_EQ(result.exitCode, 0) << server.mode;
    // A flood or a drop ends the exchange before the deadline; a trickle or
    // a stalled handshake at it.
    const bool atTheDeadline = std::string(server.mode) == "trickle" || std::string(server.mode) == "stall";
    EXPECT_LT(seconds, atTheDeadline ? 6.0 : 2.5)
        << server.mode << ": one deadline for the whole exchange\n" << result.err;
    // A dropped connection ends the relay at once: no spinning on a dead socket.
    EXPECT_LT(cpu(after) - cpu(before), 1.5) << server.mode;
    if (*server.reason) {
      EXPECT_NE(result.err.find(std::string("] Could not secure the connection to the mail server: ") + server.reason),
                std::string::npos)
          << server.mode << "\n" << result.err;
    }
    fs::remove_all(home_.archive());
    fs::remove_all(home_.chats());
  }
}

// What the relay hands over is the mail and the login: a connection from
// any other process on the machine gets nothing, and the one from this
// process still gets the server.
TEST_F(SecuredEmail, TheRelayServesOnlyThisProcess) {
  SmtpServer server(home_.path() / "smtp", "tls", serving("localhost"));
  auto opened = TlsTunnel::open({MailSecurity::Tls, MailProtocol::Smtp, "localhost", static_cast<unsigned>(std::stoi(server.port())),
                                 (certificates_ / "ca.pem").string(), true, 5});
  ASSERT_TRUE(std::holds_alternative<std::unique_ptr<TlsTunnel>>(opened));
  const unsigned port = std::get<std::unique_ptr<TlsTunnel>>(opened)->localPort();
  const auto firstBytes = [port] {
    const int fd = loopbackConnection(port);
    const timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char reply[4] = {};
    const bool got = fd >= 0 && recv(fd, reply, 3, MSG_WAITALL) == 3;
    if (fd >= 0)
      close(fd);
    return got ? std::string(reply, 3) : std::string();
  };
  const pid_t stranger = fork();
  if (stranger == 0)
    _exit(firstBytes().empty() ? 0 : 1);
  int status = 0;
  waitpid(stranger, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "another process read the server's greeting";
  EXPECT_EQ(firstBytes(), "220");
}

TEST_F(SecuredEmail, CertificatesForAnotherHostOrFromAStrangerAreRefused) {
  for (const auto &[certificate, security] :
       std::vector<std::pair<std::string, std::string>>{{"wrong-host", "tls"}, {"stranger", "starttls"}}) {
    SmtpServer server(home_.path() / certificate, security, serving(certificate));
    secure(server.port(), security);
    addChat();
    auto result = home_.run("parlova");
    EXPECT_TRUE(server.messages().empty()) << certificate;
    EXPECT_NE(result.err.find("] Could not secure the connection to the mail server: TLS handshake failed: the "
                              "server's certificate was refused ("),
              std::string::npos)
        << result.err;
    EXPECT_EQ(home_.readSetting("reportThis").rfind("TLS handshake failed: ", 0), 0u) << certificate;
    fs::remove_all(home_.archive());

    // Verification off: the user's explicit choice for a server they know.
    home_.setSetting("emailAllowUnverifiedCertificate", "-bool", "YES");
    addChat();
    result = home_.run("parlova");
    EXPECT_EQ(server.messages().size(), 1u) << certificate << "\n" << result.err;
    home_.setSetting("emailAllowUnverifiedCertificate", "-bool", "NO");
    fs::remove_all(home_.archive());
  }
}

// "-bool YES" is what people type after reading "enable TLS": neither that
// nor any other value but the three names may fall back to plain text.
TEST_F(SecuredEmail, ASecuritySettingThatIsNotOneOfTheThreeNamesSendsNothingAndKeepsTheTranscript) {
  SmtpServer server(home_.path() / "smtp", "no-starttls");
  secure(server.port(), "none");
  const auto transcript = addChat();
  for (const auto &[type, value] : std::vector<std::pair<std::string, std::string>>{
           {"-bool", "YES"}, {"-int", "1"}, {"-string", ""}, {"-string", "ssl3"}}) {
    home_.setSetting("emailSecurity", type, value);
    const auto result = home_.run("parlova");
    EXPECT_NE(result.err.find("] Mail is on, but the settings are not complete: emailSecurity must be none, starttls "
                              "or tls. Nothing is done until"),
              std::string::npos)
        << type << " " << value << "\n" << result.err;
    EXPECT_EQ(home_.readSetting("reportThis"), "Mail settings: emailSecurity must be none, starttls or tls");
    EXPECT_TRUE(fs::exists(transcript)) << type << " " << value;
  }
  EXPECT_EQ(server.received(), "");
}

// Into a folder of a real IMAP server (Dovecot, whose folders are split by
// "."): the message the SMTP path sends, its Date and internal date the
// chat's, stored once over a plain connection, STARTTLS and implicit TLS.
class ImapEmail : public Email {
protected:
  void toImap(const ImapServer &server, const std::string &security, const std::string &folder) {
    home_.mailTo(security == "tls" ? server.tlsPort() : server.plainPort());
    home_.setSetting("emailDelivery", "-string", "imap");
    home_.setSetting("emailSecurity", "-string", security);
    home_.setSetting("emailCAFile", "-string", server.certificate().string());
    home_.setSetting("emailUsername", "-string", "chatuser");
    home_.setSetting("emailPassword", "-string", "s3cret");
    home_.setSetting("emailFolder", "-string", folder);
  }
  // Each message of a folder as "INTERNALDATE|Date|bytes" lines, the
  // bytes without the parts that differ from one sending to the next.
  // "internal date|Date|whether it reads as the plain rendering" for each
  // message, and whether the folder is subscribed.
  static std::string storedIn(const ImapServer &server, const std::string &folder, const fs::path &plain) {
    return server.reading(std::string(kSameText) +
                          "import email.utils, imaplib, time\n"
                          "imap.select('" + folder + "', readonly=True)\n"
                          "for uid in imap.uid('SEARCH', 'ALL')[1][0].split():\n"
                          "    data = imap.uid('FETCH', uid, '(INTERNALDATE RFC822)')[1][0]\n"
                          "    when = int(time.mktime(imaplib.Internaldate2tuple(data[0])))\n"
                          "    message = email.message_from_bytes(data[1])\n"
                          "    date = int(email.utils.parsedate_to_datetime(message['Date']).timestamp())\n"
                          "    print(when, date, same(data[1], '" + plain.string() + "'), sep='|')\n"
                          "name = '" + folder + "'.strip('\"').encode()\n"
                          "print(any(line.rstrip(b'\"').endswith(name) for line in imap.lsub()[1]))\n");
  }
};

TEST_F(ImapEmail, PlainStartTlsAndTlsAppendTheMessageDatedByTheChatOnceIntoASubscribedFolder) {
  const fs::path plain = plainRendering();
  ImapServer server;
  // 200000000 seconds after 2001-01-01: the chat's first message.
  const std::string dated = "1178307200|1178307200|";
  for (const auto &[security, folder, stored] : std::vector<std::tuple<std::string, std::string, std::string>>{
           {"none", "Chats", "Chats"}, {"starttls", "Archive/Old Chats", "Archive.Old Chats"}, {"tls", "Chäts", "Ch&AOQ-ts"}}) {
    toImap(server, security, folder);
    for (int again = 0; again < 2; ++again) {
      addChat(); // a run that died before the move brings it back
      const auto result = home_.run("parlova");
      EXPECT_TRUE(archived()) << result.err;
      EXPECT_EQ(result.err.find("is in the IMAP folder " + folder + " already") != std::string::npos, again == 1)
          << security << "\n" << result.err;
      fs::remove_all(home_.archive());
    }
    EXPECT_EQ(storedIn(server, "\"" + stored + "\"", plain), dated + "True\nTrue") << security;
  }
}

TEST_F(ImapEmail, ARefusedLoginOrAnInsecureServerStoresNothingAndSaysWhy) {
  {
    ImapServer server;
    toImap(server, "none", "Chats");
    home_.setSetting("emailPassword", "-string", "wrong \"one\"");
    addChat();
    home_.run("parlova");
    EXPECT_EQ(home_.readSetting("reportThis").rfind("IMAP login refused: ", 0), 0u) << home_.readSetting("reportThis");
    EXPECT_FALSE(archived()) << "a refused login waits, as an unreachable server does";
    EXPECT_EQ(server.reading("print(imap.select('Chats')[0])"), "NO");
    fs::remove_all(home_.chats());
  }
  {
    // Asked for STARTTLS, the server offers none: not a word of the login.
    ImapServer server(false);
    toImap(server, "starttls", "Chats");
    addChat();
    const auto result = home_.run("parlova");
    EXPECT_EQ(home_.readSetting("reportThis"), "server does not offer STARTTLS") << result.err;
    EXPECT_NE(server.log().find("(no auth attempts"), std::string::npos) << server.log();
    EXPECT_EQ(server.log().find("chatuser"), std::string::npos) << server.log();
    fs::remove_all(home_.archive());
  }
  {
    ImapServer server(true, "mail.example.org");
    toImap(server, "tls", "Chats");
    addChat();
    home_.run("parlova");
    EXPECT_EQ(home_.readSetting("reportThis").rfind("TLS handshake failed: the server's certificate was refused", 0), 0u)
        << home_.readSetting("reportThis");
    EXPECT_EQ(server.reading("print(imap.select('Chats')[0])"), "NO");
  }
}

} // namespace
} // namespace parlova::testing

namespace parlova::testing {
namespace {

// How many messages a folder holds and how many Message-IDs among them.
std::string messagesAndIdsIn(const ImapServer &server, const std::string &folder) {
  return server.reading("imap.select('" + folder + "', readonly=True)\n"
                        "uids = imap.uid('SEARCH', 'ALL')[1][0].split()\n"
                        "ids = set()\n"
                        "for uid in uids:\n"
                        "    header = imap.uid('FETCH', uid, '(BODY.PEEK[HEADER.FIELDS (MESSAGE-ID)])')[1][0][1]\n"
                        "    ids.add(header.strip())\n"
                        "print(len(uids), len(ids))\n");
}

// A backlog into a mailbox 40 ms away: one session for it all, at most two
// round trips a chat, every chat once; so too when the catch-up is killed
// half-way and run again, and when the server cuts the session now and
// then, taking a message but not answering (each cut costs a connection
// and a listing, which finds that message there).
TEST_F(ImapEmail, ABacklogIntoADistantMailboxIsOneSessionAndEveryChatOnceAfterAKillOrACut) {
  constexpr int kChats = 40;
  ImapServer server(false);
  const auto catchUp = [&](const std::string &folder, int dropAfter, bool killHalfWay) {
    ScratchHome home;
    samples::writeBacklog(home.chats(), {.transcripts = kChats, .seed = 11, .people = 8, .longestChat = 12});
    DelayProxy proxy(home.path() / "proxy", server.plainPort(), 20, dropAfter);
    home.mailTo(proxy.port());
    for (const auto &[key, value] : std::vector<std::pair<std::string, std::string>>{
             {"emailDelivery", "imap"}, {"emailSecurity", "none"}, {"emailUsername", "chatuser"},
             {"emailPassword", "s3cret"}, {"emailFolder", folder}})
      home.setSetting(key, "-string", value);
    int killedAt = 0;
    if (killHalfWay) {
      const pid_t run = home.start("parlova", {"--catch-up", "--quiet"});
      while (proxy.roundTrips() < kChats / 2)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      kill(run, SIGKILL);
      waitpid(run, nullptr, 0);
      killedAt = proxy.connections();
      EXPECT_EQ(killedAt, 1) << folder;
    }
    const auto result = home.run("parlova", {"--catch-up", "--quiet"});
    EXPECT_EQ(result.exitCode, 0) << folder << "\n" << result.err;
    EXPECT_EQ(filesBelow(home.archive()).size(), static_cast<size_t>(kChats)) << folder;
    EXPECT_EQ(messagesAndIdsIn(server, folder), std::to_string(kChats) + " " + std::to_string(kChats)) << folder;
    EXPECT_LE(proxy.roundTrips(), 2 * kChats) << folder;
    return proxy.connections() - killedAt;
  };
  EXPECT_EQ(catchUp("Whole", 0, false), 1);
  EXPECT_EQ(catchUp("Killed", 0, true), 1);
  EXPECT_GE(catchUp("Cut", 15, false), 3);
}

// Through SMTP a backlog is one session, each message after the first
// behind a reset, paced when the settings ask it; a session the server
// cuts is opened again for the next message, which goes once.
TEST_F(Email, ABacklogThroughSmtpIsOneSessionResetBetweenMessagesAndPacedWhenAsked) {
  constexpr int kChats = 6;
  const auto catchUp = [&](const std::string &name, int dropAfter, int perMinute) {
    ScratchHome home;
    samples::writeBacklog(home.chats(), {.transcripts = kChats, .seed = 5, .people = 4, .longestChat = 8});
    SmtpServer server(home.path() / "smtp", "accept");
    DelayProxy proxy(home.path() / "proxy", server.port(), 0, dropAfter);
    home.mailTo(proxy.port());
    if (perMinute)
      home.setSetting("emailMessagesPerMinute", "-int", std::to_string(perMinute));
    const auto start = std::chrono::steady_clock::now();
    const auto result = home.run("parlova", {"--catch-up", "--quiet"});
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(result.exitCode, 0) << name << "\n" << result.err;
    EXPECT_EQ(server.messages().size(), static_cast<size_t>(kChats)) << name;
    EXPECT_EQ(filesBelow(home.archive()).size(), static_cast<size_t>(kChats)) << name;
    return std::tuple(proxy.connections(), countOccurrences(proxy.sent(), "\r\nRSET\r\n"), seconds);
  };
  const auto [connections, resets, seconds] = catchUp("kept", 0, 0);
  EXPECT_EQ(connections, 1);
  EXPECT_EQ(resets, kChats - 1);
  // 120 a minute: half a second from one message to the next.
  EXPECT_GE(std::get<2>(catchUp("paced", 0, 120)), (kChats - 1) * 0.5);
  // Cut at the reset after each message: every message on a session of its own.
  EXPECT_EQ(std::get<0>(catchUp("cut", 5, 0)), kChats);

  // Killed between two messages: what the server took is noted at once,
  // so the next run sends none of it again (at most the one in hand).
  ScratchHome home;
  samples::writeBacklog(home.chats(), {.transcripts = kChats, .seed = 5, .people = 4, .longestChat = 8});
  SmtpServer server(home.path() / "smtp", "accept");
  home.mailTo(server.port());
  home.setSetting("emailMessagesPerMinute", "-int", "300");
  const pid_t run = home.start("parlova", {"--catch-up", "--quiet"});
  while (server.messages().size() < 3)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  std::this_thread::sleep_for(std::chrono::milliseconds(50)); // archived, and waiting for the next
  kill(run, SIGKILL);
  waitpid(run, nullptr, 0);
  EXPECT_EQ(home.run("parlova", {"--catch-up", "--quiet"}).exitCode, 0);
  EXPECT_EQ(filesBelow(home.archive()).size(), static_cast<size_t>(kChats));
  EXPECT_LE(server.messages().size(), static_cast<size_t>(kChats + 1));
}

} // namespace
} // namespace parlova::testing
