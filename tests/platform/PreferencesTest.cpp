// Settings read and written as the settings pane and macOS `defaults` see
// them.
#include <gtest/gtest.h>

#include <unistd.h>

#include <sys/wait.h>

#include <functional>

#include "platform/Preferences.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

TEST(PreferenceValues, ReadStringsAndNumbersTheWayFoundationDoes) {
  struct Case {
    PreferenceValue value;
    bool asBool;
    int32_t asInt;
  };
  const std::vector<Case> cases = {
      {PreferenceValue::string("YES"), true, 0},     {PreferenceValue::string("  true"), true, 0},
      {PreferenceValue::string("no"), false, 0},      {PreferenceValue::string("-007"), true, -7},
      {PreferenceValue::string("0"), false, 0},       {PreferenceValue::string(" 25 km"), true, 25},
      {PreferenceValue::string("99999999999"), true, 2147483647},
      {PreferenceValue::integer(2), true, 2},         {PreferenceValue::integer(0), false, 0},
      {PreferenceValue::integer(-3), true, -3},       {PreferenceValue::integer(4294967297LL), true, 1},
      {PreferenceValue::real(2.9), true, 2},          {PreferenceValue::real(0.25), true, 0},
      {PreferenceValue::boolean(true), true, 1},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.value.boolValue(), c.asBool) << c.value.stringValue().value_or("?");
    EXPECT_EQ(c.value.intValue(), c.asInt) << c.value.stringValue().value_or("?");
  }
  EXPECT_EQ(PreferenceValue::integer(25).stringValue(), "25");
}

TEST(PreferencesDomain, WritesAreSeenByOthersAndOthersChangesAfterSynchronise) {
  ScratchHome home;
  const fs::path file = home.path() / "Library/Preferences/com.example.test.plist";
  Preferences ours("com.example.test", file);
  Preferences theirs("com.example.test", file);

  EXPECT_FALSE(ours.copyAppValue("emailPort"));
  EXPECT_EQ(ours.intValue("emailPort"), 0);
  ours.setAppValue("emailPort", PreferenceValue::integer(2525));
  ours.setAppValue("emailServer", PreferenceValue::string("smtp.example.com"));
  ASSERT_TRUE(ours.appSynchronize());

  EXPECT_EQ(theirs.intValue("emailPort"), 2525);
  theirs.setAppValue("emailPort", std::nullopt);
  theirs.setAppValue("debugMode", PreferenceValue::integer(2));
  ASSERT_TRUE(theirs.appSynchronize());

  // Until it synchronises, a reader keeps what it read.
  EXPECT_EQ(ours.intValue("emailPort"), 2525);
  ours.appSynchronize();
  EXPECT_FALSE(ours.copyAppValue("emailPort"));
  EXPECT_EQ(ours.intValue("debugMode"), 2);
  EXPECT_EQ(ours.stringValue("emailServer"), "smtp.example.com");
}

TEST(PreferencesDomain, ReadsXmlWrittenByOthersAndKeepsAnUnreadableFile) {
  ScratchHome home;
  const fs::path file = home.path() / "Library/Preferences/com.hollowmere.parlova.plist";
  writeText(file, R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>sendEmails</key><true/><key>emailPort</key><string>587</string></dict></plist>)");
  EXPECT_EQ(home.readSetting("sendEmails"), "1");
  EXPECT_EQ(home.readSetting("emailPort"), "587");

  writeText(file, "garbage");
  Preferences settings("com.hollowmere.parlova", file);
  EXPECT_FALSE(settings.copyAppValue("sendEmails"));
  settings.setAppValue("emailFails", PreferenceValue::integer(0));
  EXPECT_TRUE(settings.appSynchronize());
  EXPECT_EQ(readText(file.string() + ".unreadable"), "garbage");
  EXPECT_EQ(home.readSetting("emailFails"), "0");

  // Damaged again: kept under a new name, the first copy untouched.
  writeText(file, "more garbage");
  Preferences again("com.hollowmere.parlova", file);
  again.setAppValue("emailFails", PreferenceValue::integer(0));
  EXPECT_TRUE(again.appSynchronize());
  EXPECT_EQ(readText(file.string() + ".unreadable"), "garbage");
  EXPECT_EQ(readText(file.string() + ".unreadable-2"), "more garbage");
}

TEST(PreferencesDomain, DamagedSettingsStopEveryRunBeforeAnythingIsTouched) {
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
      EXPECT_EQ(result.exitCode, 0);
      EXPECT_NE(result.err.find("] The settings file " + file.string() + " is damaged: " + reason +
                                ". This run ends and touches nothing;"),
                std::string::npos)
          << result.err;
    }
    EXPECT_NE(home.run("parlova", {"--dry-run"}).out.find("stop: the settings file is damaged"), std::string::npos);
    const auto read = home.run("parlova-defaults", {"read", "com.hollowmere.parlova"});
    EXPECT_EQ(read.exitCode, 1);
    EXPECT_EQ(read.err, "parlova-defaults: the settings file " + file.string() + " is damaged: " + reason + "\n");
    EXPECT_TRUE(fs::exists(transcript));
    EXPECT_FALSE(fs::exists(home.path() / "Library/Parlova")) << "nothing touched";
  }
}

TEST(PreferencesDomain, SettingsAreTheOwnersOnlyAndWhatADeadWriterLeftIsRemoved) {
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

TEST(DefaultsTool, RefusesNumbersOutOfRangeAndTheRunNeverWrapsAPort) {
  ScratchHome home;
  for (const std::vector<std::string> &bad : {std::vector<std::string>{"emailPort", "-int", "68061"},
                                              {"emailPort", "-int", "-1"},
                                              {"emailFails", "-int", "-3"},
                                              {"subjectNumber", "-int", "99999999999999999999"}}) {
    const auto result = home.run("parlova-defaults", {"write", "com.hollowmere.parlova", bad[0], bad[1], bad[2]});
    EXPECT_EQ(result.exitCode, 1) << bad[2];
    EXPECT_EQ(home.readSetting(bad[0]), "(absent)");
  }
  // Written by something else: the run refuses it rather than connect to
  // 68061 - 65536 = 2525.
  writeText(home.path() / "Library/Preferences/com.hollowmere.parlova.plist",
            "<plist><dict><key>sendEmails</key><true/><key>emailServer</key><string>127.0.0.1</string>"
            "<key>emailPort</key><integer>68061</integer><key>emailAddress</key><string>a@b.c</string>"
            "<key>emailOutgoing</key><string>d@e.f</string></dict></plist>");
  const auto transcript = home.addTranscript("Alice on 2005-03-01.ichat", simpleChat());
  const auto result = home.run("parlova");
  EXPECT_NE(result.err.find("] Unable to connect to mail server: emailPort 68061 is no port number (0 to 65535).\n"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(home.readSetting("reportThis"), "emailPort 68061 is no port number (0 to 65535)");
  EXPECT_TRUE(fs::exists(transcript));
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
}

} // namespace
} // namespace parlova::testing
