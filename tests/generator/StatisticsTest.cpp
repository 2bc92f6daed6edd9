// The running totals and the statistics page: the float and date renderings
// of every placeholder, the first run, a damaged totals file and the word
// lists.
#include <gtest/gtest.h>

#include <cmath>

#include "foundation/CalendarFormat.h"
#include "foundation/PropertyListValue.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/StatisticsPage.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

// Every placeholder in the page's order, one per line.
const std::string kAllPlaceholders =
    "____USERTOTAL|____OTHERTOTAL|____SUMTOTAL|____USERWORDAVG|____OTHERWORDAVG|____SUMWORDAVG|____CHATRATIOSIZE|"
    "____CHATIMAGEAVG|____CHATLINKAVG|____CHATIMAGETOTAL|____CHATLINKTOTAL|____USERCURSETOTAL|____OTHERCURSETOTAL|"
    "____SUMCURSETOTAL|____CURSERATIOSIZE|____CURSERECRATIOSIZE|____NETSPEAKTOTAL|____NETSPEAKOTHERTOTAL|"
    "____NETSPEAKSUMTOTAL|____NETSPEAKRATIOSIZE|____DATE1|____DATE2|____AVGCHATSPERDAY";

// The page needs no home, only the clock; a scratch home brings UTC.
class StatisticsPage : public ::testing::Test {
  InProcessHome home_;
};

TEST_F(StatisticsPage, FillsEveryPlaceholderWithFloatQuotientsAndCalendarDates) {
  StatisticsTotals totals{.userWords = 7, .otherWords = 14, .userCurses = 1, .otherCurses = 2, .userNetspeak = 3,
                          .otherNetspeak = 4, .images = 5, .links = 10, .chats = 3,
                          .startDate = Date(131709600),  // 2005-03-05 10:00
                          .endDate = Date(132570000)};   // 2005-03-15 09:00: 9 whole days
  EXPECT_EQ(renderStatisticsPage(kAllPlaceholders, totals),
            "7|14|21|2.3|4.7|7.0|100|1.7|3.3|5|10|1|2|3|43|43|3|4|7|129|March 5, 2005|March 15, 2005|0.3");
  totals.endDate = Date(132577200); // 11:00 the same day: now 10 whole days
  EXPECT_EQ(renderStatisticsPage("____AVGCHATSPERDAY", totals), "0.3");
  totals.chats = 25;
  EXPECT_EQ(renderStatisticsPage("____AVGCHATSPERDAY ____DATE2", totals), "2.5 March 15, 2005");
}

TEST_F(StatisticsPage, ZeroDenominatorsAndSameDayAndLargeCounts) {
  // A first run on the day the chat ended: no whole day has passed.
  StatisticsTotals empty{.chats = 1, .startDate = Date(132577200), .endDate = Date(132570000)};
  EXPECT_EQ(renderStatisticsPage(kAllPlaceholders, empty),
            "0|0|0|0.0|0.0|0.0|nan|0.0|0.0|0|0|0|0|0|nan|nan|0|0|0|nan|March 15, 2005|March 15, 2005|0.0");
  // Curses with no words at all: a positive count over zero.
  StatisticsTotals cursesOnly{.userCurses = 2, .chats = 1};
  EXPECT_EQ(renderStatisticsPage("____CURSERATIOSIZE ____NETSPEAKRATIOSIZE", cursesOnly), "inf nan");

  // 2^24 + 1 is not a float: the float sum loses the one that the two
  // separate averages keep.
  StatisticsTotals large{.userWords = 16777217, .otherWords = 1, .chats = 1};
  EXPECT_EQ(renderStatisticsPage("____SUMTOTAL ____USERWORDAVG ____OTHERWORDAVG ____SUMWORDAVG", large),
            "16777218 16777216.0 1.0 16777216.0");
  // A missing placeholder stays away; one used twice is filled twice.
  EXPECT_EQ(renderStatisticsPage("____USERTOTAL/____USERTOTAL ____UNKNOWN", large), "16777217/16777217 ____UNKNOWN");
}

class StatisticsStore : public ::testing::Test {
protected:
  void SetUp() override {
    writeText(folder() / "statstemplate.html", "____CHATLINKTOTAL ____CHATIMAGETOTAL ____DATE1 ____DATE2");
    writeWords("curses.plist", {"Darn", "heck"});
    writeWords("netspeak.plist", {"lol", "brb"});
  }
  fs::path folder() const { return home_.parlovaFolder(); }
  void writeWords(const std::string &name, std::vector<std::string> words) const {
    PlistValue::Array list;
    for (auto &word : words)
      list.emplace_back(std::move(word));
    writeFileAtomically(folder() / name, PlistValue(std::move(list)).serialized(PlistFormat::XML));
  }
  static void update(const TranscriptSpec &spec) {
    const auto log = ICLPChatLog::initWithArchiveData(keyedTranscript(spec), ICLPChatLog::Format::iChat3, "alice1979");
    ASSERT_TRUE(log);
    ICLPLogGenerator::UpdateStatistics(&*log);
  }
  PlistValue totals() const {
    const auto bytes = readFileContents(folder() / "chatgeist.plist");
    return bytes ? PlistValue::parse(*bytes).value_or(PlistValue()) : PlistValue();
  }
  std::vector<std::string> keys() const {
    std::vector<std::string> names;
    const PlistValue stored = totals();
    for (const auto &[key, value] : *stored.get<PlistValue::Dictionary>())
      names.push_back(key);
    return names;
  }

  InProcessHome home_;
};

TranscriptSpec chatter(double lastTime) {
  const Account alice{"AIM", "alice1979"}, me{"AIM", "me2004"};
  TranscriptSpec spec;
  spec.others = {alice};
  RunSpec link = text("here");
  link.link = LinkSpec{"http://example.com/"};
  RunSpec picture = text("\uFFFC");
  picture.attachment = AttachmentSpec{.fileName = "a.png", .bytes = {1, 2}};
  spec.messages = {says(alice, lastTime - 60, "Darn darn darn! lol LOL"), says(me, lastTime - 30, "heck brb lol"),
                   MessageSpec{me, lastTime - 20, {link, text(" "), picture}},
                   MessageSpec{alice, lastTime, {link, text(" "), link}}};
  return spec;
}

TEST_F(StatisticsStore, FirstRunThenTotalsGrowAndTheEndDateFollowsTheLastTranscript) {
  const Date before = Date::now();
  update(chatter(160488000)); // ends 2006-02-01 12:00
  PlistValue stored = totals();
  EXPECT_EQ(keys(), (std::vector<std::string>{"usertextcount", "othertextcount", "cursecount", "netspeakcount",
                                              "imagecount", "linkcount", "chatcount", "othercursecount",
                                              "othernetspeakcount", "startDate", "endDate"}));
  // alice: "Darn darn darn! lol LOL" + "here here" (one link object met
  // twice is a word twice); me: "heck brb lol" + "here \uFFFC".
  EXPECT_EQ(stored.integerForKey("othertextcount"), 7);
  EXPECT_EQ(stored.integerForKey("usertextcount"), 5);
  EXPECT_EQ(stored.integerForKey("othercursecount"), 1) << "only the exact form Darn";
  EXPECT_EQ(stored.integerForKey("cursecount"), 1);
  EXPECT_EQ(stored.integerForKey("othernetspeakcount"), 1);
  EXPECT_EQ(stored.integerForKey("netspeakcount"), 2);
  EXPECT_EQ(stored.integerForKey("imagecount"), 1);
  EXPECT_EQ(stored.integerForKey("linkcount"), 2);
  EXPECT_EQ(stored.integerForKey("chatcount"), 1);
  EXPECT_GE(stored.dateForKey("startDate")->timeIntervalSinceReferenceDate(),
            std::floor(before.timeIntervalSinceReferenceDate()));
  EXPECT_EQ(stored.dateForKey("endDate"), Date(160488000));
  const Date start = *stored.dateForKey("startDate");

  // An older transcript processed later moves the end back.
  update(chatter(131709600));
  stored = totals();
  EXPECT_EQ(stored.integerForKey("usertextcount"), 10);
  EXPECT_EQ(stored.integerForKey("linkcount"), 4);
  EXPECT_EQ(stored.integerForKey("chatcount"), 2);
  EXPECT_EQ(stored.dateForKey("startDate"), start);
  EXPECT_EQ(stored.dateForKey("endDate"), Date(131709600));
  EXPECT_EQ(readText(folder() / "stats.html"), "4 2 " + formatCalendarDate(start, "%B %e, %Y") + " March 5, 2005");

  // No transcript: one more chat, the end now.
  ICLPLogGenerator::UpdateStatistics(nullptr);
  stored = totals();
  EXPECT_EQ(stored.integerForKey("usertextcount"), 10);
  EXPECT_EQ(stored.integerForKey("chatcount"), 3);
  EXPECT_GE(stored.dateForKey("endDate")->timeIntervalSinceReferenceDate(),
            std::floor(before.timeIntervalSinceReferenceDate()));
}

TEST_F(StatisticsStore, MissingWordListsCountEveryWord) {
  fs::remove(folder() / "curses.plist");
  writeText(folder() / "netspeak.plist", "not a list");
  update(chatter(160488000));
  const PlistValue stored = totals();
  EXPECT_EQ(stored.integerForKey("cursecount"), stored.integerForKey("usertextcount"));
  EXPECT_EQ(stored.integerForKey("othercursecount"), stored.integerForKey("othertextcount"));
  EXPECT_EQ(stored.integerForKey("netspeakcount"), 5);
}

TEST_F(StatisticsStore, DamagedTotalsStartOverFromTheFolderCreationDate) {
  writeText(folder() / "chatgeist.plist", "<plist><dict><key>chatcount");
  const auto created = creationDateOfItem(folder());
  ASSERT_TRUE(created);
  update(chatter(160488000));
  const PlistValue stored = totals();
  EXPECT_EQ(stored.integerForKey("chatcount"), 1);
  EXPECT_EQ(stored.integerForKey("linkcount"), 2);
  // Stored as whole seconds in XML.
  EXPECT_NEAR(stored.dateForKey("startDate")->timeIntervalSinceReferenceDate(),
              created->timeIntervalSinceReferenceDate(), 1.0);

  // Counters written by hand as reals or text still read as numbers, and
  // a missing start date again comes from the folder.
  writeFileAtomically(folder() / "chatgeist.plist",
                      PlistValue(PlistValue::Dictionary{{"usertextcount", 2.9}, {"chatcount", "41"}})
                          .serialized(PlistFormat::Binary));
  update(chatter(160488000));
  EXPECT_EQ(totals().integerForKey("usertextcount"), 7);
  EXPECT_EQ(totals().integerForKey("chatcount"), 42);
  EXPECT_TRUE(totals().dateForKey("startDate"));
}

TEST_F(StatisticsStore, CountersWrapAsThirtyTwoBitIntegers) {
  writeFileAtomically(folder() / "chatgeist.plist",
                      PlistValue(PlistValue::Dictionary{{"linkcount", int64_t{2147483647}}, {"chatcount", int64_t{7}}})
                          .serialized(PlistFormat::XML));
  update(chatter(160488000));
  EXPECT_EQ(totals().integerForKey("linkcount"), -2147483647);
  EXPECT_EQ(readText(folder() / "stats.html").substr(0, 14), "-2147483647 1 ");
}

} // namespace
} // namespace parlova::testing
