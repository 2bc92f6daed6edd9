// Transcripts and settings made to break the tool, through the real tool:
// nothing crashes, nothing is written outside its folders, every archive
// reads with plistlib, every transcript ends in exactly one folder, and
// every mail has exactly the headers meant.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "samples/ImageWriter.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

std::string everyControlCharacter() {
  std::string controls;
  for (char c = 1; c < 0x20; ++c)
    controls += c;
  return controls + "\x7F";
}

MessageSpec posts(const Account &who, double time, const std::string &address) {
  RunSpec link = text(address);
  link.link = LinkSpec{address, false, std::nullopt};
  return MessageSpec{who, time, {link}};
}

MessageSpec sends(const Account &who, double time, const std::string &name, std::vector<uint8_t> bytes) {
  RunSpec picture = text("\uFFFC");
  picture.attachment = AttachmentSpec{.fileName = name, .bytes = std::move(bytes)};
  return MessageSpec{who, time, {picture}};
}

// Every file below the home, relative to it.
std::set<std::string> filesOf(const fs::path &home) {
  std::set<std::string> files;
  for (auto it = fs::recursive_directory_iterator(home); it != fs::recursive_directory_iterator(); ++it)
    if (!it->is_directory())
      files.insert(fs::relative(it->path(), home).string());
  return files;
}

TEST(HostileInput, TranscriptsMadeToBreakTheToolAreArchivedOnceAndReadableByOthers) {
  ScratchHome home;
  installShippedFiles(home);
  SmtpServer server(home.path() / "smtp", "accept");
  home.mailTo(server.port());
  home.setSetting("handleURLs", "-bool", "YES");
  home.setSetting("handleImages", "-bool", "YES");

  const std::string controls = everyControlCharacter();
  const std::vector<Account> people = {{"AIM", "eve" + controls}, {"AIM", std::string(4000, 'n')}, {"AIM", "."},
                                       {"AIM", ".."},            {"AIM", "-"},                     {"AIM", "*"},
                                       {"AIM", "x"},             {"AIM", "x-images"},              {"AIM", "../up"}};
  const std::vector<uint8_t> picture = pictureBytes(ImageFormat::PNG, 4, 4);
  std::vector<std::string> names;
  double time = 157629600;
  for (size_t i = 0; i < people.size(); ++i) {
    const Account &person = people[i];
    TranscriptSpec spec;
    spec.others = {person};
    spec.messages = {says(person, time += 60, "text " + controls + " <b>"),
                     posts(person, time += 60, "http://example.com/" + controls),
                     sends(person, time += 60, i % 2 ? "../../../escape.png" : std::string("a\0b/c.png", 9), picture)};
    if (i == 0) {
      spec.messages.push_back(posts(person, time += 60, "http://example.com/" + std::string(70 * 1024, 'l')));
      spec.messages.push_back(sends(person, time += 60, "/etc/passwd", std::vector<uint8_t>(101 << 20, 'p')));
    }
    // A file name holds anything but "/" and NUL: line breaks included.
    const std::string name = (i == 0 ? "Eve\r\nX-Injected: 1" + controls.substr(2) : "p" + std::to_string(i)) +
                             " on 2005-12-30 at 10.0" + std::to_string(i) + ".ichat";
    home.addTranscript(name, spec);
    names.push_back(name);
  }
  const std::set<std::string> before = filesOf(home.path());
  for (size_t run = 0; run < people.size() + 2 && !filesBelow(home.chats()).empty(); ++run) {
    const auto result = home.run("parlova");
    ASSERT_EQ(result.exitCode, 0) << result.err;
  }

  EXPECT_EQ(filesBelow(home.chats()), std::vector<std::string>{});
  std::vector<std::string> archived = filesBelow(home.archive());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(archived, names) << "each transcript once, under its own name";
  for (const std::string &file : filesOf(home.path())) {
    if (file.starts_with("Library/") && file.ends_with(".plist")) {
      EXPECT_FALSE(plistlibReading(home.path() / file).starts_with("refused")) << file;
    }
    const bool inside = file.starts_with("Library/Parlova/") || file.starts_with("Documents/iChats (Parlovaed)/") ||
                        file.starts_with("Library/Preferences/") || file.starts_with("smtp/");
    EXPECT_TRUE(before.count(file) || inside) << "written outside the tool's folders: " << file;
  }
  const auto mails = server.messages();
  EXPECT_EQ(mails.size(), people.size());
  const std::set<std::string> meant = {"Subject", "From", "To", "Date", "Message-ID", "MIME-Version", "Content-Type",
                                       "X-Peer", "X-MailFrom", "X-RcptTo", "Content-Transfer-Encoding"};
  for (const std::string &mail : mails) {
    const std::string headers = emailHeadersReading(mail);
    std::istringstream lines(headers);
    for (std::string line; std::getline(lines, line);)
      EXPECT_TRUE(meant.count(line.substr(0, line.find(':')))) << line << "\n" << headers;
  }
}

// A time no chat can have had (one flipped bit of a stored double makes
// years in the millions) is no time at all: the runs end, the pages stay
// small, and the transcript after it is processed.
TEST(HostileInput, TimesNoChatCanHaveHadWedgeNoRun) {
  ScratchHome home;
  installShippedFiles(home);
  for (const char *setting : {"keepHistory", "keepChatPages", "handleURLs"})
    home.setSetting(setting, "-bool", "YES");
  const Account eve{"AIM", "eve"};
  TranscriptSpec spec;
  spec.others = {eve};
  spec.messages = {says(eve, 1e16, "far"), posts(eve, 1e12, "http://example.com/"), says(eve, -1e16, "before"),
                   says(eve, 157629600, "now")};
  home.addTranscript("Eve on 2005-12-30 at 10.00.ichat", spec);
  home.addTranscript("Good on 2006-01-01 at 10.00.ichat", simpleChat("good"));
  for (int run = 0; run < 3; ++run) {
    const auto result = home.run("parlova");
    EXPECT_EQ(result.exitCode, 0) << result.err;
  }
  EXPECT_EQ(filesBelow(home.chats()), std::vector<std::string>{});
  EXPECT_LT(fs::file_size(home.path() / "Library/Parlova/stats.html"), 100u * 1024);
  const auto found = home.run("parlova-search", {"far"});
  EXPECT_EQ(found.exitCode, 0) << found.err;
  EXPECT_NE(found.out.find("eve: far"), std::string::npos) << found.out;
}

// Every setting of every wrong type at once: the run goes on or stops, but
// never crashes, and the transcript stays in exactly one folder.
TEST(HostileInput, SettingsOfEveryWrongTypeNeitherCrashNorLoseTheTranscript) {
  ScratchHome home;
  const auto transcript = home.addTranscript("Alice on 2005-03-01.ichat", simpleChat());
  const fs::path settings = home.path() / "Library/Preferences/com.hollowmere.parlova.plist";
  writeText(settings,
            "<plist><dict>"
            "<key>sendEmails</key><string>maybe</string><key>handleURLs</key><array/>"
            "<key>handleImages</key><dict/><key>debugMode</key><date>2005-01-01T00:00:00Z</date>"
            "<key>emailServer</key><integer>7</integer><key>emailPort</key><string>abc</string>"
            "<key>emailAddress</key><array><string>me@example.org</string></array>"
            "<key>emailOutgoing</key><data>AAEC</data><key>emailSecurity</key><true/>"
            "<key>emailNeedsUsername</key><real>1e300</real><key>emailUsername</key><false/>"
            "<key>emailPassword</key><integer>-1</integer><key>emailPasswordCommand</key><array/>"
            "<key>escapeHTML</key><string></string><key>forceUniqueSubjects</key><real>nan</real>"
            "<key>subjectNumber</key><integer>9223372036854775807</integer>"
            "<key>errorStatus</key><string>x</string><key>emailFails</key><dict/>"
            "<key>reportThis</key><integer>3</integer>"
            "</dict></plist>");
  for (int run = 0; run < 2; ++run) {
    const auto result = home.run("parlova");
    EXPECT_LT(result.exitCode, 2) << result.err;
  }
  const auto moved = home.archive() / transcript.filename();
  EXPECT_NE(fs::exists(transcript), fs::exists(moved));
  EXPECT_EQ(home.run("parlova-defaults", {"read", "com.hollowmere.parlova"}).exitCode, 0);
}

} // namespace
} // namespace parlova::testing
