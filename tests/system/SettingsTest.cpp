// The settings file through the tools: parlova-defaults writes, reads and
// deletes as macOS `defaults` does and refuses what no setting can hold;
// a damaged file stops every run before anything is touched; the file is
// the owner's alone; the error the settings pane shows.
#include <gtest/gtest.h>

#include <functional>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

TEST(Settings, DamagedSettingsStopEveryRunBeforeAnythingIsTouched) {
  ScratchHome home;
  const fs::path file = home.path() / "Library/Preferences/com.hollowmere.parlova.plist";
  const auto transcript = home.addTranscript("Alice on 2005-03-01.ichat", simpleChat());
  for (const auto &[damage, reason] : std::vector<std::pair<std::function<void()>, std::string>>{
           {[&] { writeText(file, "bplist00 cut short"); }, "it is not a property list (damaged or cut short)"},
           {[&] { writeText(file, "<plist><array/></plist>"); }, "it holds no dictionary of settings"},
           {[&] { fs::create_directories(file); }, "it is a folder, not a file"}}) {
    fs::remove_all(file);
    damage();
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{}, {"--catch-up"}}) {
      const auto result = home.run("parlova", arguments);
      EXPECT_EQ(result.exitCode, arguments.empty() ? 0 : 1);
      EXPECT_NE(result.err.find("] The settings file " + file.string() + " is damaged: " + reason +
                                ". This run ends and touches nothing;"),
                std::string::npos)
          << result.err;
    }
    const auto dry = home.run("parlova", {"--dry-run"});
    EXPECT_NE(dry.out.find("problem  the settings file is damaged"), std::string::npos);
    EXPECT_EQ(dry.exitCode, 1);
    const auto read = home.run("parlova-defaults", {"read", "com.hollowmere.parlova"});
    EXPECT_EQ(read.exitCode, 1);
    EXPECT_EQ(read.err, "parlova-defaults: the settings file " + file.string() + " is damaged: " + reason + "\n");
    EXPECT_TRUE(fs::exists(transcript));
    EXPECT_FALSE(fs::exists(home.path() / "Library/Parlova")) << "nothing touched";
  }
}

TEST(Settings, SettingsAreTheOwnersOnlyAndWhatADeadWriterLeftIsRemoved) {
  ScratchHome home;
  home.setSetting("emailPassword", "-string", "secret");
  const fs::path folder = home.path() / "Library/Preferences";
  EXPECT_EQ(fs::status(folder / "com.hollowmere.parlova.plist").permissions() & fs::perms::all, fs::perms(0600));
  fs::permissions(folder / "com.hollowmere.parlova.plist", fs::perms(0400));
  home.setSetting("emailUsername", "-string", "me");
  EXPECT_EQ(fs::status(folder / "com.hollowmere.parlova.plist").permissions() & fs::perms::all, fs::perms(0400))
      << "a stricter mode of the owner's stays";

  const pid_t gone = fork();
  if (gone == 0)
    _exit(0);
  waitpid(gone, nullptr, 0);
  const fs::path orphan = folder / (".parlova-tmp-" + std::to_string(gone) + "-1");
  const fs::path live = folder / (".parlova-tmp-" + std::to_string(getpid()) + "-2");
  writeText(orphan, "emailPassword secret");
  writeText(live, "being written");
  home.run("parlova");
  EXPECT_FALSE(fs::exists(orphan));
  EXPECT_TRUE(fs::exists(live)) << "its writer still runs";
}

TEST(DefaultsTool, RefusesNumbersOutOfRange) {
  ScratchHome home;
  for (const std::vector<std::string> &bad : {std::vector<std::string>{"emailPort", "-int", "68061"},
                                              {"emailPort", "-int", "-1"},
                                              {"emailFails", "-int", "-3"},
                                              {"subjectNumber", "-int", "99999999999999999999"}}) {
    const auto result = home.run("parlova-defaults", {"write", "com.hollowmere.parlova", bad[0], bad[1], bad[2]});
    EXPECT_EQ(result.exitCode, 1) << bad[2];
    EXPECT_EQ(home.readSetting(bad[0]), "(absent)");
  }
}

TEST(DefaultsTool, WritesReadsAndDeletesLikeDefaults) {
  ScratchHome home;
  home.setSetting("handleURLs", "-bool", "YES");
  home.setSetting("emailServer", "-string", "mail.example.org");
  EXPECT_EQ(home.run("parlova-defaults", {"write", "com.hollowmere.parlova", "emailAddress", "me@example.org"}).exitCode, 0);
  EXPECT_EQ(home.readSetting("handleURLs"), "1");
  EXPECT_EQ(home.readSetting("emailAddress"), "me@example.org");

  const auto all = home.run("parlova-defaults", {"read", "com.hollowmere.parlova"});
  EXPECT_NE(all.out.find("emailServer = \"mail.example.org\";"), std::string::npos) << all.out;

  EXPECT_EQ(home.run("parlova-defaults", {"delete", "com.hollowmere.parlova", "handleURLs"}).exitCode, 0);
  EXPECT_EQ(home.readSetting("handleURLs"), "(absent)");
  const auto missing = home.run("parlova-defaults", {"read", "com.hollowmere.parlova", "handleURLs"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.err.find("does not exist"), std::string::npos);
  EXPECT_NE(home.run("parlova-defaults", {"write", "com.hollowmere.parlova", "emailPort", "-int", "lots"}).exitCode, 0);

  // Written where Parlova never looks: said, and written all the same.
  for (const auto &[domain, key, warning] : std::vector<std::tuple<std::string, std::string, std::string>>{
           {"com.hollowmere.parlova", "sendEmail", "Parlova has no setting sendEmail (did you mean sendEmails?)"},
           {"com.hollowmere.parlova", "EmailFolder", "(did you mean emailFolder?)"},
           {"com.hollowmere.parlova", "zzz", "no setting zzz (parlova-defaults with no arguments lists them)"},
           {"com.hollowmere.parolva", "sendEmails", "not Parlova's domain (did you mean com.hollowmere.parlova?)"},
           {"com.hollowmere.parlova", "sendEmails", ""}}) {
    const auto written = home.run("parlova-defaults", {"write", domain, key, "-bool", "YES"});
    EXPECT_EQ(written.exitCode, 0);
    if (warning.empty())
      EXPECT_EQ(written.err, "");
    else
      EXPECT_NE(written.err.find(warning), std::string::npos) << written.err;
  }
}

// The error the settings pane shows, and the dialog that points to it.
TEST(ErrorReport, OnlyAStandingCountOfThreeRaisesTheError) {
  for (int fails = 0; fails <= 4; ++fails) {
    ScratchHome home;
    home.setSetting("emailFails", "-int", std::to_string(fails));
    const auto dialog = fakeOsascript(home, "OK");
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
