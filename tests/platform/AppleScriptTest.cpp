// Talking to iChat: the open-chat script's text and how answers are read.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>

#include "context/OpenChatScript.h"
#include "platform/AppleScript.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

TEST(OpenChatScript, IsNineLinesWithTheEscapedNameInAllFourPlaces) {
  const std::string script = openChatScript("Bob \"B\" Smith");
  EXPECT_EQ(countOccurrences(script, "\n"), 8u);
  EXPECT_EQ(script.substr(0, script.find('\n')), "tell application \"iChat\"");
  EXPECT_EQ(countOccurrences(script, "Bob \\\"B\\\" Smith"), 4u);
  EXPECT_NE(script.find("\n\trepeat with i from 1"), std::string::npos);
  EXPECT_NE(script.find("\"Chat with Bob \\\"B\\\" Smith\" then \n return yes\nend if\n"), std::string::npos);
  EXPECT_TRUE(script.ends_with("end if\nend repeat\nreturn no\nend tell"));
}

TEST(AppleScriptAnswers, BecomeDescriptorsReadAsIChatsCodes) {
  EXPECT_EQ(descriptorForAnswer("yes\n")->fourCharCodeInBigEndian(), htonl(fourCharCode("yes ")));
  const auto no = descriptorForAnswer("no");
  char first = 0;
  const uint32_t code = *no->fourCharCodeInBigEndian();
  std::memcpy(&first, &code, 1);
  EXPECT_EQ(first, 'n');
  EXPECT_EQ(descriptorForAnswer(" 3\n")->int32Value(), 3);
  EXPECT_EQ(descriptorForAnswer("-2")->int32Value(), -2);
  EXPECT_FALSE(descriptorForAnswer("  \n"));
  EXPECT_EQ(descriptorForAnswer("maybe")->descriptorType, fourCharCode("utf8"));
}

class ScriptRunner : public ::testing::Test {
protected:
  std::optional<AppleEventDescriptor> runWith(const std::string &commandBody,
                                              std::chrono::seconds timeout = std::chrono::seconds(5)) {
    const fs::path command = home_.path() / "osascript-stand-in";
    writeText(command, "#!/bin/sh\n" + commandBody);
    fs::permissions(command, fs::perms::owner_all);
    setenv("PARLOVA_OSASCRIPT", command.c_str(), 1);
    auto answer = AppleScript("return no").executeAndReturnError(timeout);
    unsetenv("PARLOVA_OSASCRIPT");
    return answer;
  }
  ScratchHome home_;
};

TEST_F(ScriptRunner, HandsTheScriptOnStdinAndReadsTheAnswer) {
  const fs::path seen = home_.path() / "seen";
  const auto answer = runWith("cat > '" + seen.string() + "'\necho yes\n");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->fourCharCodeInBigEndian(), htonl(fourCharCode("yes ")));
  EXPECT_EQ(readText(seen), "return no");
}

TEST_F(ScriptRunner, FailingSilentOrMissingCommandsGiveNoResult) {
  EXPECT_FALSE(runWith("cat >/dev/null\necho yes\nexit 1\n"));
  EXPECT_FALSE(runWith("cat >/dev/null\n"));
  EXPECT_FALSE(runWith("exec sleep 30\n", std::chrono::seconds(1))) << "the runner gives up after its time-out";
  setenv("PARLOVA_OSASCRIPT", (home_.path() / "no-such-command").c_str(), 1);
  EXPECT_FALSE(AppleScript("return no").executeAndReturnError());
  unsetenv("PARLOVA_OSASCRIPT");
}

} // namespace
} // namespace parlova::testing
