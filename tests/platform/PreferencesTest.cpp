// Settings read and written as the settings pane and macOS `defaults` see
// them, in this process.
#include <gtest/gtest.h>

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
  Preferences written("com.hollowmere.parlova", file);
  EXPECT_TRUE(written.boolValue("sendEmails"));
  EXPECT_EQ(written.intValue("emailPort"), 587);

  writeText(file, "garbage");
  Preferences settings("com.hollowmere.parlova", file);
  EXPECT_FALSE(settings.copyAppValue("sendEmails"));
  settings.setAppValue("emailFails", PreferenceValue::integer(0));
  EXPECT_TRUE(settings.appSynchronize());
  EXPECT_EQ(readText(file.string() + ".unreadable"), "garbage");
  EXPECT_EQ(Preferences("com.hollowmere.parlova", file).stringValue("emailFails"), "0");

  // Damaged again: kept under a new name, the first copy untouched.
  writeText(file, "more garbage");
  Preferences again("com.hollowmere.parlova", file);
  again.setAppValue("emailFails", PreferenceValue::integer(0));
  EXPECT_TRUE(again.appSynchronize());
  EXPECT_EQ(readText(file.string() + ".unreadable"), "garbage");
  EXPECT_EQ(readText(file.string() + ".unreadable-2"), "more garbage");
}

} // namespace
} // namespace parlova::testing
