// Loading a transcript file into the model: the file-name rules, both root
// shapes, and files that are not transcripts at all.
#include <gtest/gtest.h>

#include "model/ICLPChatLog.h"
#include "platform/FoundationValues.h"
#include "tests/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using fixtures::Account;
using fixtures::TranscriptSpec;

class ChatLogLoading : public ::testing::Test {
protected:
  fs::path write(const std::string &name, const TranscriptSpec &spec) {
    const fs::path path = home_.path() / name;
    fixtures::writeFile(path, fixtures::keyedTranscript(spec));
    return path;
  }
  ScratchHome home_;
};

TEST_F(ChatLogLoading, OtherPartyIsEverythingBeforeTheLastOn) {
  const auto alice = ICLPChatLog::initWithFilePath(write("Alice on 2005-03-01 at 10.15.ichat", simpleChat()));
  ASSERT_TRUE(alice);
  EXPECT_EQ(alice->primaryOtherParty(), "Alice");
  const auto dinner = ICLPChatLog::initWithFilePath(write("Dinner on Friday on 2005-03-01 at 10.15.ichat", simpleChat()));
  ASSERT_TRUE(dinner);
  EXPECT_EQ(dinner->primaryOtherParty(), "Dinner on Friday");
}

TEST_F(ChatLogLoading, OnlyExactExtensionsAndNamesWithOnAreTranscripts) {
  for (const char *name : {"Alice.ichat", "Alice on x.txt", "Alice on x.iChat", "Alice on x.Chat",
                                 "Alice on x.ichat.bak", "Alice on x"})
    EXPECT_FALSE(ICLPChatLog::initWithFilePath(write(name, simpleChat()))) << name;
}

TEST_F(ChatLogLoading, ReadsMessagesInOrderWithSpeakersTimesAndFlags) {
  TranscriptSpec spec = simpleChat("alice");
  spec.messages[0].flags = 0x80000005u;
  spec.messages[1].flags.reset();
  fixtures::MessageSpec status;
  status.time = 200000060;
  status.runs = {fixtures::text("alice went away")};
  spec.messages.push_back(status);
  const auto log = ICLPChatLog::initWithFilePath(write("alice on 2006-06-06.ichat", spec));
  ASSERT_TRUE(log);
  const auto messages = log->messages();
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0]->rawSpeaker(), "alice");
  EXPECT_EQ(messages[0]->speaker()->Protocol(), "AIM");
  EXPECT_EQ(messages[0]->mystery(), 0x80000005u);
  EXPECT_EQ(messages[1]->rawSpeaker(), "parlovauser");
  EXPECT_EQ(messages[1]->mystery(), 0u) << "a missing Flags entry reads as 0";
  EXPECT_EQ(messages[1]->TimeStamp()->timeIntervalSinceReferenceDate(), 200000030);
  EXPECT_EQ(messages[2]->speaker(), nullptr);
  EXPECT_EQ(messages[2]->rawSpeaker(), std::nullopt);
  EXPECT_EQ(messages[2]->string()->string(), u"alice went away");
  ASSERT_EQ(log->participants().size(), 1u);
  EXPECT_EQ(log->participants()[0]->rawName(), "alice");
}

TEST_F(ChatLogLoading, MessagesStyleRootWithMetadataLoadsLikeTheShortOne) {
  TranscriptSpec shortRoot = simpleChat("bob");
  TranscriptSpec longRoot = shortRoot;
  longRoot.root = TranscriptSpec::Root::Messages;
  longRoot.xml = true;
  const auto a = ICLPChatLog::initWithFilePath(write("bob on 1.ichat", shortRoot));
  const auto b = ICLPChatLog::initWithFilePath(write("bob on 2.ichat", longRoot));
  ASSERT_TRUE(a && b);
  EXPECT_EQ(a->loadedArray()->count(), 4u);
  EXPECT_EQ(b->loadedArray()->count(), 8u);
  ASSERT_EQ(a->messages().size(), b->messages().size());
  for (size_t i = 0; i < a->messages().size(); ++i) {
    EXPECT_EQ(a->messages()[i]->rawSpeaker(), b->messages()[i]->rawSpeaker());
    EXPECT_EQ(a->messages()[i]->string()->string(), b->messages()[i]->string()->string());
  }
  // One participant object serves every message it speaks and the list.
  EXPECT_EQ(b->messages()[0]->speaker(), b->participants()[0]);
}

TEST_F(ChatLogLoading, DamagedOrForeignContentsAreNoTranscript) {
  const auto good = fixtures::keyedTranscript(simpleChat());
  const std::vector<std::pair<std::string, std::vector<uint8_t>>> cases = {
      {"empty", {}},
      {"text", {'h', 'e', 'l', 'l', 'o'}},
      {"truncated", std::vector<uint8_t>(good.begin(), good.begin() + good.size() / 2)},
      {"bplist header only", {'b', 'p', 'l', 'i', 's', 't', '0', '0'}},
  };
  for (const auto &[label, bytes] : cases) {
    const fs::path path = home_.path() / ("x on " + label + ".ichat");
    fixtures::writeFile(path, bytes);
    EXPECT_FALSE(ICLPChatLog::initWithFilePath(path)) << label;
  }
  fs::create_directories(home_.path() / "folder on x.ichat");
  EXPECT_FALSE(ICLPChatLog::initWithFilePath(home_.path() / "folder on x.ichat"));
}

} // namespace
} // namespace parlova::testing
