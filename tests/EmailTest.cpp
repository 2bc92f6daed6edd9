// The transcript email through a real SMTP server on loopback: what the
// server receives, and what each way of failing logs, reports and leaves.
#include <gtest/gtest.h>

#include "platform/Unicode.h"
#include "tests/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

class Email : public ::testing::Test {
protected:
  void configure(const std::string &port) {
    home_.setSetting("sendEmails", "-bool", "YES");
    home_.setSetting("emailServer", "-string", "127.0.0.1");
    home_.setSetting("emailPort", "-int", port);
    home_.setSetting("emailAddress", "-string", "me@example.org");
    home_.setSetting("emailOutgoing", "-string", "parlova@example.org");
  }
  fs::path addChat() {
    auto spec = simpleChat("alice");
    fixtures::RunSpec styled = fixtures::text("caf\xC3\xA9");
    styled.color = fixtures::ColorSpec{fixtures::ColorSpec::Space::CalibratedRGB, {1, 0, 0}};
    spec.messages[0].runs.push_back(styled);
    return home_.addTranscript("Alice on 2006-01-01.ichat", spec);
  }
  bool archived() const { return fs::exists(home_.archive() / "Alice on 2006-01-01.ichat"); }

  ScratchHome home_;
};

TEST_F(Email, TheServerReceivesBothRenderingsInOrder) {
  SmtpServer server(home_.path() / "smtp", "accept");
  configure(server.port());
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

TEST_F(Email, LoginIsUsedWhenAskedAndARejectedOneIsReported) {
  for (const auto &[password, delivered] : std::vector<std::pair<std::string, bool>>{{"secret", true}, {"wrong", false}}) {
    SmtpServer server(home_.path() / ("smtp-" + password), "auth");
    configure(server.port());
    home_.setSetting("emailNeedsUsername", "-int", "257"); // only the low eight bits count
    home_.setSetting("emailUsername", "-string", "parlova");
    home_.setSetting("emailPassword", "-string", password);
    addChat();
    const auto result = home_.run("parlova");
    EXPECT_EQ(server.messages().size(), delivered ? 1u : 0u) << result.err;
    if (!delivered) {
      EXPECT_NE(result.err.find("] The SMTP server rejected the username/password.\n"), std::string::npos) << result.err;
      EXPECT_EQ(home_.readSetting("reportThis"), "login rejected");
    }
    // A rejected login is reported, not retried: the transcript is archived.
    EXPECT_TRUE(archived());
    fs::remove_all(home_.archive());
  }
}

TEST_F(Email, ARefusedMessageIsReportedAsTheReplyReadIn16BitUnits) {
  SmtpServer server(home_.path() / "smtp", "refuse");
  configure(server.port());
  addChat();
  const auto result = home_.run("parlova");
  EXPECT_NE(result.err.find("] An error occurred while sending email:\n"), std::string::npos) << result.err;
  // "554 5.7.1 Me..." read two bytes to a character.
  const std::string reply = "554 5.7.1 Message refused";
  std::u16string units;
  for (size_t i = 0; i + 1 < 24; i += 2)
    units += static_cast<char16_t>(static_cast<uint8_t>(reply[i]) | static_cast<uint8_t>(reply[i + 1]) << 8);
  EXPECT_EQ(home_.readSetting("reportThis").rfind(utf16ToUtf8(units), 0), 0u) << home_.readSetting("reportThis");
  EXPECT_EQ(home_.readSetting("errorStatus"), "(absent)");
  EXPECT_TRUE(archived());
  EXPECT_EQ(home_.readSetting("emailFails"), "0");
}

TEST_F(Email, AThirdFailureStandsAndStopsTheRun) {
  SmtpServer server(home_.path() / "smtp", "refuse");
  configure(server.port());
  home_.setSetting("emailFails", "-int", "3");
  addChat();
  const auto result = home_.run("parlova", {}, {{"PARLOVA_OSASCRIPT", "/bin/false"}});
  EXPECT_EQ(home_.readSetting("errorStatus"), "2");
  EXPECT_NE(result.err.find("] an error has occurred while emailing?\n"), std::string::npos) << result.err;
  EXPECT_FALSE(archived());
}

TEST_F(Email, AnUnreachableOrUnsetServerLeavesTheTranscript) {
  for (const std::string server : {"127.0.0.1", ""}) {
    configure("1"); // nothing listens on port 1
    if (server.empty())
      home_.run("parlova-defaults", {"delete", "com.hollowmere.parlova", "emailServer"});
    addChat();
    const auto result = home_.run("parlova");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.err.find("] Unable to connect to mail server.\n"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("] *****FINISH***** An error occurred while sending email. This log has been skipped.\n"),
              std::string::npos);
    EXPECT_EQ(home_.readSetting("reportThis"), "SMTP unreachable");
    EXPECT_FALSE(archived());
  }
}

TEST_F(Email, ASilentServerTimesOut) {
  SmtpServer server(home_.path() / "smtp", "silent");
  configure(server.port());
  addChat();
  const auto result = home_.run("parlova", {}, {{"PARLOVA_SMTP_TIMEOUT_SECONDS", "2"}});
  EXPECT_NE(result.err.find("] The attempt to send email timed out.\n"), std::string::npos) << result.err;
  EXPECT_EQ(home_.readSetting("reportThis"), "server not responding");
  EXPECT_TRUE(archived());
}

TEST_F(Email, UniqueSubjectsCountUp) {
  SmtpServer server(home_.path() / "smtp", "accept");
  configure(server.port());
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

} // namespace
} // namespace parlova::testing
