// Loading a transcript file into the model: the file-name rules, both root
// shapes, and files that are not transcripts at all.
#include <gtest/gtest.h>

#include "foundation/FoundationValues.h"
#include "foundation/PropertyList.h"
#include "model/ICLPChatLog.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using samples::Account;
using samples::TranscriptSpec;

class ChatLogLoading : public ::testing::Test {
protected:
  fs::path write(const std::string &name, const TranscriptSpec &spec) {
    const fs::path path = home_.path() / name;
    samples::writeFile(path, samples::keyedTranscript(spec));
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
  samples::MessageSpec status;
  status.time = 200000060;
  status.runs = {samples::text("alice went away")};
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
  const auto good = samples::keyedTranscript(simpleChat());
  const std::vector<std::pair<std::string, std::vector<uint8_t>>> cases = {
      {"empty", {}},
      {"text", {'h', 'e', 'l', 'l', 'o'}},
      {"truncated", std::vector<uint8_t>(good.begin(), good.begin() + good.size() / 2)},
      {"bplist header only", {'b', 'p', 'l', 'i', 's', 't', '0', '0'}},
  };
  for (const auto &[label, bytes] : cases) {
    const fs::path path = home_.path() / ("x on " + label + ".ichat");
    samples::writeFile(path, bytes);
    EXPECT_FALSE(ICLPChatLog::initWithFilePath(path)) << label;
  }
  fs::create_directories(home_.path() / "folder on x.ichat");
  EXPECT_FALSE(ICLPChatLog::initWithFilePath(home_.path() / "folder on x.ichat"));
}

// Arrays inside arrays, `levels` deep, as XML and as a binary property list
// (object i holds a reference to object i + 1).
std::vector<uint8_t> nestedXml(size_t levels) {
  std::string text = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  for (size_t i = 0; i < levels; ++i)
    text += "<array>";
  for (size_t i = 0; i < levels; ++i)
    text += "</array>";
  text += "</plist>";
  return std::vector<uint8_t>(text.begin(), text.end());
}

std::vector<uint8_t> nestedBinary(size_t levels) {
  std::vector<uint8_t> bytes = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<uint64_t> offsets;
  const auto put = [&](uint64_t value, int width) {
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8)
      bytes.push_back(static_cast<uint8_t>(value >> shift));
  };
  for (size_t i = 0; i < levels; ++i) {
    offsets.push_back(bytes.size());
    if (i + 1 == levels) {
      bytes.push_back(0xA0); // an empty array
    } else {
      bytes.push_back(0xA1);
      put(i + 1, 4);
    }
  }
  const uint64_t table = bytes.size();
  for (const uint64_t offset : offsets)
    put(offset, 8);
  bytes.insert(bytes.end(), 6, 0);
  bytes.push_back(8); // offset size
  bytes.push_back(4); // reference size
  put(levels, 8);
  put(0, 8);
  put(table, 8);
  return bytes;
}

// libplist reads and frees nesting recursively: a few hundred kilobytes of
// nesting must be refused before it runs out of stack.
TEST(PropertyLists, NestingTooDeepIsRefusedBeforeParsing) {
  EXPECT_TRUE(parsePropertyList(nestedXml(100)));
  EXPECT_TRUE(parsePropertyList(nestedBinary(100)));
  EXPECT_FALSE(parsePropertyList(nestedXml(300000)));
  EXPECT_FALSE(parsePropertyList(nestedBinary(300000)));
  // The transcript decoders read binary lists with their own view.
  EXPECT_FALSE(ICLPChatLog::initWithArchiveData(nestedBinary(300000), ICLPChatLog::Format::iChat3, "deep"));
}

} // namespace
} // namespace parlova::testing
