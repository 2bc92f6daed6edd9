// Display names from the user's contact cards, the end-of-chat judgement
// and the error report, through the built tools in a scratch home.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/VCard.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using fixtures::Account;

TEST(VCardReading, UnfoldsUnescapesAndKeepsParameters) {
  const auto cards = parseVCards("BEGIN:VCARD\r\nVERSION:3.0\r\nN:Lidd\\,ell;Alice;;;\r\n"
                                 "item1.X-AIM;type=HOME;type=pref:alice\r\n  1979\r\n"
                                 "NOTE:line one\\nline two\\; still\r\nIMPP;X-SERVICE-TYPE=AIM:aim:alt\r\n"
                                 "END:VCARD\r\nBEGIN:VCARD\nVERSION:2.1\nTEL;HOME;PREF:123\nEND:VCARD\n");
  ASSERT_EQ(cards.size(), 2u);
  const VCard &alice = cards[0];
  EXPECT_EQ(alice.first("N")->components, (std::vector<std::string>{"Lidd,ell", "Alice", "", "", ""}));
  const VCardProperty *aim = alice.first("X-AIM");
  ASSERT_TRUE(aim);
  EXPECT_EQ(aim->value, "alice 1979") << "a folded line continues after its first blank";
  EXPECT_TRUE(aim->isPreferred());
  EXPECT_EQ(alice.first("NOTE")->value, "line one\nline two; still");
  EXPECT_TRUE(cards[1].first("TEL")->isPreferred()) << "vCard 2.1 bare types";
}

class Names : public ::testing::Test {
protected:
  void SetUp() override {
    writeText(home_.path() / ".local/share/contacts/me.vcf",
              "BEGIN:VCARD\nVERSION:3.0\nN:Appleseed;Johnny;;;\nX-AIM:johnnyold\nX-AIM;type=pref:johnny\n"
              "X-PARLOVA-ME:TRUE\nEND:VCARD\n");
    writeText(home_.path() / ".local/share/contacts/friends/a.vcf",
              "BEGIN:VCARD\nVERSION:4.0\nN:Liddell;Alice;;;\nIMPP:aim:alice1979\nEND:VCARD\n"
              "BEGIN:VCARD\nVERSION:3.0\nN:Other;Alicia;;;\nX-AIM:alice1979\nEND:VCARD\n"
              "BEGIN:VCARD\nVERSION:3.0\nN:;Cher;;;\nX-AIM:cher\nEND:VCARD\n");
  }

  std::string inspect(const fixtures::TranscriptSpec &spec, const std::map<std::string, std::string> &env = {}) {
    const auto path = home_.addTranscript("Somebody on 2006-01-01.ichat", spec);
    const auto result = home_.run("parlova-inspect", {path.string()}, env);
    fs::remove(path);
    return result.out + result.err;
  }

  ScratchHome home_;
};

TEST_F(Names, FollowTheRulesForEachService) {
  fixtures::TranscriptSpec spec;
  spec.others = {{"AIM", "alice1979"}, {"AIM", "cher"}, {"AIM", "stranger"}, {"SubNet", "bob@bobs-mac.local"},
                 {"SubNet", "plainbob"}, {"Jabber", "x@example.org"}, {"SubNet", " myself "}, {"AIM", " myself "},
                 {"AIM", "johnny"}, {"AIM", "johnnyold"}};
  const std::string out = inspect(spec, {{"USER", "jappleseed"}});
  EXPECT_NE(out.find("(11 speakers)"), std::string::npos) << out;
  for (const std::string expected :
       {"AIM alice1979 shown as Alice Liddell\n", "AIM cher shown as cher\n", "AIM stranger shown as stranger\n",
        "SubNet bob@bobs-mac.local shown as bob\n", "SubNet plainbob shown as plainbob\n",
        "Jabber x@example.org shown as x@example.org\n", "SubNet  myself  shown as jappleseed\n",
        "AIM  myself  shown as  myself \n", "AIM johnny shown as Johnny Appleseed\n",
        "AIM johnnyold shown as Johnny Appleseed\n"})
    EXPECT_NE(out.find(expected), std::string::npos) << expected << "\n" << out;

  const std::string withoutUser = inspect(spec);
  EXPECT_NE(withoutUser.find("SubNet  myself  shown as (no name)\n"), std::string::npos) << withoutUser;
}

TEST_F(Names, MyOwnHandleWithoutAFullNameIsShownAsItIs) {
  writeText(home_.path() / ".local/share/contacts/me.vcf",
            "BEGIN:VCARD\nVERSION:3.0\nN:;Johnny;;;\nX-AIM:johnny\nX-PARLOVA-ME:TRUE\nEND:VCARD\n");
  fixtures::TranscriptSpec spec;
  spec.others = {{"AIM", "alice1979"}};
  spec.messages = {fixtures::says({"AIM", "johnny"}, 1, "hi")};
  const std::string out = inspect(spec);
  EXPECT_NE(out.find("[1] johnny shown as johnny at"), std::string::npos) << out;
}

// An osascript stand-in for a running iChat: it answers the documents
// question with `documents` and the open-window question with `open`.
std::map<std::string, std::string> fakeIChatAnswers(const ScratchHome &home, const std::string &documents,
                                                    const std::string &open) {
  const fs::path script = home.path() / "bin" / "fake-osascript";
  writeText(script, "#!/bin/sh\nmkdir -p \"$HOME/scripts\"\nn=$(ls \"$HOME/scripts\" | wc -l)\n"
                    "s=$(cat)\nprintf '%s' \"$s\" > \"$HOME/scripts/$n.applescript\"\n"
                    "case \"$s\" in *'number of documents'*) echo '" + documents + "' ;; *) echo '" + open +
                        "' ;; esac\n");
  fs::permissions(script, fs::perms::owner_all);
  return {{"PARLOVA_OSASCRIPT", script.string()}};
}

class IChatStandIn {
public:
  explicit IChatStandIn(const fs::path &folder) {
    fs::copy_file("/bin/sleep", folder / "iChat");
    pid_ = fork();
    if (pid_ == 0) {
      execl((folder / "iChat").c_str(), "iChat", "60", nullptr);
      _exit(127);
    }
  }
  ~IChatStandIn() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

private:
  pid_t pid_;
};

TEST(EndOfChat, GroupChatsAreOverOnlyWhenIChatShowsNoChatAtAll) {
  for (const auto &[documents, processed] : std::vector<std::pair<std::string, bool>>{{"0", true}, {"1", false}, {"", false}}) {
    ScratchHome home;
    IChatStandIn iChat(home.path());
    auto group = simpleChat("alice");
    group.others.push_back({"AIM", "bob"});
    home.addTranscript("alice on 2006-01-01.ichat", group);
    // The walk's own question says the window is closed; the pipeline asks
    // about documents for a group chat.
    const auto result = home.run("parlova", {}, fakeIChatAnswers(home, documents, "no"));
    EXPECT_NE(result.err.find("] multiparty chat, checking documents\n"), std::string::npos) << result.err;
    EXPECT_EQ(fs::exists(home.archive() / "alice on 2006-01-01.ichat"), processed) << "documents " << documents;
    EXPECT_EQ(readText(home.path() / "scripts" / "1.applescript"), "tell application \"iChat\" to get the number of documents");
  }
}

TEST(ErrorReport, OnlyAStandingCountOfThreeRaisesTheError) {
  for (int fails = 0; fails <= 4; ++fails) {
    ScratchHome home;
    home.setSetting("emailFails", "-int", std::to_string(fails));
    const auto dialog = fakeIChatAnswers(home, "", "OK");
    const auto result = home.run("tests/parlova-report-error", {"3", "login rejected"}, dialog);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(home.readSetting("reportThis"), "login rejected");
    EXPECT_EQ(home.readSetting("emailFails"), std::to_string(fails)) << "written back unchanged";
    EXPECT_EQ(home.readSetting("errorStatus"), fails == 3 ? "3" : "(absent)") << fails;
    const auto scripts = filesBelow(home.path() / "scripts");
    ASSERT_EQ(scripts.size(), fails == 3 ? 1u : 0u) << fails;
    if (fails == 3) {
      EXPECT_EQ(readText(home.path() / "scripts" / scripts.front()),
                "tell application \"System Events\" to display dialog \"Parlova has encountered an error. Please go "
                "to the Parlova preferences pane for more information.\" buttons {\"OK\"}");
    }
  }
}

} // namespace
} // namespace parlova::testing
