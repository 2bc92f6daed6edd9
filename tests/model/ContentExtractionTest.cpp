// What messages yield for the gathered pages and the statistics: links and
// attachments one per object, and words cut at single blanks, in both
// transcript formats.
#include <gtest/gtest.h>

#include "model/ICLPChatLog.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

using namespace samples;

const Account kAlice{"AIM", "alice1979"};
const Account kMe{"AIM", "me2004"};

RunSpec linked(std::string text, std::string address, bool asURL = false, std::optional<std::string> base = {}) {
  RunSpec run = samples::text(std::move(text));
  run.link = LinkSpec{std::move(address), asURL, std::move(base)};
  return run;
}

RunSpec attached(AttachmentSpec attachment) {
  RunSpec run = samples::text("\uFFFC");
  run.attachment = std::move(attachment);
  return run;
}

class ContentExtraction : public ::testing::TestWithParam<ICLPChatLog::Format> {
protected:
  ICLPChatLog load(const TranscriptSpec &spec, const std::string &otherParty = "alice1979") {
    const auto bytes = GetParam() == ICLPChatLog::Format::iChat3 ? keyedTranscript(spec) : typedStreamTranscript(spec);
    auto log = ICLPChatLog::initWithArchiveData(bytes, GetParam(), otherParty);
    EXPECT_TRUE(log.has_value());
    return std::move(*log);
  }
};

TEST_P(ContentExtraction, OneLinkEntryPerLinkObjectInTextOrder) {
  TranscriptSpec spec;
  spec.others = {kAlice};
  MessageSpec message{kAlice, 1000, {}};
  // One link object split over two runs by a font change counts once.
  RunSpec first = linked("read ", "http://example.com/a");
  RunSpec second = linked("this", "http://example.com/a");
  second.font = FontSpec{"Helvetica-Bold", 12};
  message.runs = {first, second, text(" then "),
                  // Two URL objects with the same address are two links.
                  linked("x", "http://example.com/same", true), linked("y", "http://example.com/same", true),
                  text(" and "), linked("rel", "page.html", true, "http://example.com/dir/")};
  spec.messages = {message, MessageSpec{std::nullopt, 1001, {linked("status", "http://status.example")}},
                   says(kMe, 1002, "no links here")};

  std::vector<LinkRecord> gathered;
  load(spec).forEachURLRecord([&gathered](const LinkRecord &record) { gathered.push_back(record); });
  ASSERT_EQ(gathered.size(), 2u) << "the status line gives no record";
  EXPECT_EQ(gathered[0].speaker, "alice1979");
  EXPECT_EQ(gathered[0].time, Date(1000));
  EXPECT_EQ(gathered[0].urls, (std::vector<std::string>{"http://example.com/a", "http://example.com/same",
                                                         "http://example.com/same",
                                                         "http://example.com/dir/page.html"}));
  EXPECT_TRUE(gathered[1].urls.empty()) << "a message without links still gives its (empty) record";
}

TEST_P(ContentExtraction, AttachmentsWithAFileWrapperInTextOrder) {
  TranscriptSpec spec;
  spec.others = {kAlice};
  AttachmentSpec folder{.fileName = "album", .isFolder = true,
                        .children = {AttachmentSpec{.fileName = "inner.txt", .bytes = {'h', 'i'}}}};
  AttachmentSpec bare{.fileName = "ghost.png", .withoutFileWrapper = true};
  spec.messages = {MessageSpec{kAlice,
                               2000,
                               {text("look "), attached({.fileName = "photo.jpg", .bytes = {1, 2, 3}}), attached(bare),
                                attached(folder)}},
                   says(kAlice, 2001, "nothing attached")};

  std::vector<ImageRecord> gathered;
  load(spec).forEachImageRecord([&gathered](const ImageRecord &record) { gathered.push_back(record); });
  ASSERT_EQ(gathered.size(), 2u);
  ASSERT_EQ(gathered[0].images.size(), 2u) << "an attachment without a file wrapper is skipped";
  EXPECT_EQ(gathered[0].images[0]->preferredFilename(), "photo.jpg");
  EXPECT_EQ(gathered[0].images[0]->regularFileContents(), (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_TRUE(gathered[0].images[1]->isDirectory());
  EXPECT_TRUE(gathered[1].images.empty());
}

TEST_P(ContentExtraction, WordsAreCutAtSingleBlanksAndMatchSetsExactly) {
  TranscriptSpec spec;
  spec.others = {kAlice};
  spec.messages = {says(kAlice, 1, "  Darn it\nall  darn, darn "), says(kMe, 2, "darn\n"),
                   MessageSpec{std::nullopt, 3, {text("status words do not count")}}};
  const ICLPChatLog log = load(spec);

  // "Darn" "it\nall" "darn," "darn": leading blanks and line breaks are
  // skipped, a line break alone joins two words.
  EXPECT_EQ(log.CountWordsForOthersInSet(nullptr), 4);
  EXPECT_EQ(log.CountWordsForUserInSet(nullptr), 1);
  const WordSet curses{"darn"};
  EXPECT_EQ(log.CountWordsForOthersInSet(&curses), 1) << "only the bare lower-case word matches";
  EXPECT_EQ(log.CountWordsForUserInSet(&curses), 0) << "the trailing line break is part of the word";
  const WordSet joined{"it\nall"};
  EXPECT_EQ(log.CountWordsForOthersInSet(&joined), 1);
}

TEST_P(ContentExtraction, EverybodyButTheNamedPartyCountsAsTheUser) {
  TranscriptSpec spec;
  spec.others = {kAlice, {"AIM", "bob"}};
  spec.messages = {says(kAlice, 1, "one two"), says({"AIM", "bob"}, 2, "three four five"), says(kMe, 3, "six")};
  const ICLPChatLog named = load(spec);
  EXPECT_EQ(named.CountWordsForOthersInSet(nullptr), 2);
  EXPECT_EQ(named.CountWordsForUserInSet(nullptr), 4);

  // The file names somebody whose display name differs: nobody is "other".
  const ICLPChatLog renamed = load(spec, "Alice Liddell");
  EXPECT_EQ(renamed.CountWordsForOthersInSet(nullptr), 0);
  EXPECT_EQ(renamed.CountWordsForUserInSet(nullptr), 6);
}

INSTANTIATE_TEST_SUITE_P(BothFormats, ContentExtraction,
                         ::testing::Values(ICLPChatLog::Format::iChat3, ICLPChatLog::Format::iChat2),
                         [](const auto &info) {
                           return info.param == ICLPChatLog::Format::iChat3 ? "Keyed" : "TypedStream";
                         });

} // namespace
} // namespace parlova::testing
