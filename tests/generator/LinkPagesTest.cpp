// The link archive grown transcript by transcript, and the pages rebuilt
// from it, compared with pages written out by hand.
#include <gtest/gtest.h>


#include "foundation/PropertyListValue.h"
#include "generator/GatheredArchive.h"
#include "generator/ICLPLogGenerator.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "platform/SafeFileName.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

const Account kAlice{"AIM", "alice1979"};
const Account kBob{"AIM", "bob"};
const Account kMe{"AIM", "me2004"};
constexpr const char *kLongLink = "http://www.example.com/a/very/long/path/to/something.html";

MessageSpec postsLink(const Account &who, double time, const std::string &address, bool asURL = false) {
  RunSpec run = text(address);
  run.link = LinkSpec{address, asURL};
  return MessageSpec{who, time, {text("see "), run}};
}

// The pages are built in-process against a scratch home, in UTC so that the
// month titles and times below are fixed.
class LinkPages : public ::testing::Test {
protected:
  void SetUp() override {
    writeText(folder() / "linktemplate.html", "N:____NAME\nC:____CONTENTS\nL:____LINKS\n");
  }
  fs::path folder() const { return home_.parlovaFolder(); }
  static void generate(const TranscriptSpec &spec, const std::string &otherParty) {
    const auto log = ICLPChatLog::initWithArchiveData(keyedTranscript(spec), ICLPChatLog::Format::iChat3, otherParty);
    ASSERT_TRUE(log);
    ICLPLogGenerator::GenerateLinkFiles(&*log);
  }

  InProcessHome home_;
};

std::string item(const std::string &href, const std::string &shown, const std::string &who, const std::string &when) {
  return "<li><span><a href=\"" + href + "\" target=\"_blank\">" + shown + "</a> -- " + who + ", " + when +
         "</span></li>";
}
std::string heading(const std::string &title) { return "\n<h3>" + title + "</h3><ul class=\"links\">\n"; }
std::string nav(const std::string &href, const std::string &label, int count, bool active = false) {
  return std::string(active ? "<li class=\"active\">" : "<li>") + "<a href=\"" + href + "\">" + label +
         "</a><span class=\"numb\">(" + std::to_string(count) + ")</span></li>";
}

TEST_F(LinkPages, ArchiveGrowsOverTranscriptsAndPagesGroupByMonthNumber) {
  TranscriptSpec first;
  first.others = {kAlice};
  first.messages = {postsLink(kAlice, 157629600, "http://a.example/1"),   // Fri 2005-12-30 10:00
                    postsLink(kMe, 157908600, "http://b.example/2"),      // Mon 2006-01-02 15:30
                    postsLink(kAlice, 157971900, kLongLink, true),        // Tue 2006-01-03 09:05
                    says(kAlice, 157971960, "no link in this one")};
  generate(first, "alice1979");

  // A later transcript brings an older link of alice's, and bob's links
  // from May of two consecutive years.
  TranscriptSpec second;
  second.others = {kBob, kAlice};
  second.messages = {postsLink(kBob, 105278400, "http://bob.example/2004"),   // Mon 2004-05-03 12:00
                     postsLink(kBob, 136930500, "http://bob.example/2005"),   // Wed 2005-05-04 20:15
                     postsLink(kAlice, 154205100, "http://a.example/nov")};   // Sun 2005-11-20 18:45
  generate(second, "bob");

  const auto archiveBytes = readFileContents(folder() / "gatheredURLs.plist");
  ASSERT_TRUE(archiveBytes);
  EXPECT_EQ(std::string(archiveBytes->begin(), archiveBytes->begin() + 5), "<?xml");
  const auto archive = PlistValue::parse(*archiveBytes);
  ASSERT_TRUE(archive);
  const auto &speakers = *archive->get<PlistValue::Array>();
  ASSERT_EQ(speakers.size(), 3u) << "speakers stay in the order first met";
  EXPECT_EQ(*speakers[0].stringForKey("speaker"), "alice1979");
  EXPECT_EQ(*speakers[1].stringForKey("speaker"), "me2004");
  EXPECT_EQ(*speakers[2].stringForKey("speaker"), "bob");
  const auto &alice = *speakers[0].objectForKey("urls")->get<PlistValue::Array>();
  ASSERT_EQ(alice.size(), 3u);
  EXPECT_EQ(*alice[0].stringForKey("linkurl"), "http://a.example/nov") << "re-sorted by date";
  EXPECT_EQ(alice[0].dateForKey("date"), Date(154205100));
  EXPECT_EQ(*alice[2].stringForKey("linkurl"), kLongLink);

  const std::string itemNov =
      item("http://a.example/nov", "http://a.example/nov", "alice1979", "Sun November 20, 06:45PM");
  const std::string itemDec = item("http://a.example/1", "http://a.example/1", "alice1979", "Fri December 30, 10:00AM");
  const std::string itemJan3 = item(kLongLink, "http://www.example.c . . . th/to/something.html", "alice1979",
                                    "Tue January 3, 09:05AM");
  const std::string itemJan2 = item("http://b.example/2", "http://b.example/2", "me2004", "Mon January 2, 03:30PM");
  const std::string itemBob4 = item("http://bob.example/2004", "http://bob.example/2004", "bob", "Mon May 3, 12:00PM");
  const std::string itemBob5 = item("http://bob.example/2005", "http://bob.example/2005", "bob", "Wed May 4, 08:15PM");

  const auto navigation = [&](int active) {
    return nav("Links.html", "All", 6, active < 0) + nav("alice1979.html", "alice1979", 3, active == 0) +
           nav("me2004.html", "me2004", 1, active == 1) + nav("bob.html", "bob", 2, active == 2);
  };
  // The last group of a speaker page stays open; earlier ones are closed.
  EXPECT_EQ(readText(folder() / "alice1979.html"),
            "N:alice1979\nC:" + navigation(0) + "\nL:" + heading("November 2005") + itemNov + "</ul>" +
                heading("December 2005") + itemDec + "</ul>" + heading("January 2006") + itemJan3 + "\n");
  // May 2004 and May 2005 follow each other: one group, the first title.
  EXPECT_EQ(readText(folder() / "bob.html"),
            "N:bob\nC:" + navigation(2) + "\nL:" + heading("May 2004") + itemBob4 + itemBob5 + "\n");
  EXPECT_EQ(readText(folder() / "Links.html"),
            "N:Links\nC:" + navigation(-1) + "\nL:" + heading("January 2006") + itemJan3 + itemJan2 + "</ul>" +
                heading("December 2005") + itemDec + "</ul>" + heading("November 2005") + itemNov + "</ul>" +
                heading("May 2004") + itemBob4 + itemBob5 + "</ul></ul>\n");
}

TEST_F(LinkPages, SameTranscriptTwiceDoublesItsLinksAndNoTranscriptOnlyRebuilds) {
  TranscriptSpec spec;
  spec.others = {kAlice};
  spec.messages = {postsLink(kAlice, 157629600, "http://a.example/1")};
  generate(spec, "alice1979");
  generate(spec, "alice1979");
  const auto before = readFileContents(folder() / "gatheredURLs.plist");
  fs::remove(folder() / "alice1979.html");

  ICLPLogGenerator::GenerateLinkFiles(nullptr);
  EXPECT_EQ(readFileContents(folder() / "gatheredURLs.plist"), before) << "no transcript, no merge";
  const std::string page = readText(folder() / "alice1979.html");
  EXPECT_EQ(countOccurrences(page, "http://a.example/1\" target"), 2u) << "links are never de-duplicated";
  EXPECT_NE(page.find(nav("Links.html", "All", 2)), std::string::npos);
}

TEST_F(LinkPages, EmptyArchiveGivesAnAllLinksPageWithNothingInIt) {
  ICLPLogGenerator::GenerateLinkFiles(nullptr);
  EXPECT_EQ(readText(folder() / "Links.html"), "N:Links\nC:" + nav("Links.html", "All", 0, true) + "\nL:</ul>\n");
  EXPECT_FALSE(fs::exists(folder() / "gatheredURLs.plist"));
}

TEST_F(LinkPages, MissingTemplateWritesNoPageButKeepsTheArchive) {
  fs::remove(folder() / "linktemplate.html");
  TranscriptSpec spec;
  spec.others = {kAlice};
  spec.messages = {postsLink(kAlice, 157629600, "http://a.example/1")};
  generate(spec, "alice1979");
  EXPECT_EQ(filesBelow(folder()), std::vector<std::string>{"gatheredURLs.plist"});
}

TEST_F(LinkPages, HostileSpeakerNamesStayInsideTheFolder) {
  TranscriptSpec spec;
  const Account climber{"AIM", "../../escape"};
  const Account blank{"AIM", "john doe"};
  const Account shadow{"AIM", "Links"};
  spec.others = {climber, blank, shadow};
  spec.messages = {postsLink(climber, 157629600, "http://x.example/1"),
                   postsLink(blank, 157629601, "http://x.example/2"),
                   postsLink(shadow, 157629602, "http://x.example/3")};
  generate(spec, "john doe");

  EXPECT_EQ(filesBelow(home_.path() / "Library"),
            (std::vector<std::string>{"Parlova/Links.html", "Parlova/_._.._escape.html", "Parlova/_Links.html",
                                      "Parlova/gatheredURLs.plist", "Parlova/john doe.html",
                                      "Parlova/linktemplate.html"}));
  const std::string all = readText(folder() / "Links.html");
  EXPECT_NE(all.find(nav("%5F%2E%5F%2E%2E%5Fescape.html", "../../escape", 1)), std::string::npos);
  EXPECT_NE(all.find(nav("john%20doe.html", "john doe", 1)), std::string::npos);
  EXPECT_NE(all.find(nav("%5FLinks.html", "Links", 1)), std::string::npos);
  EXPECT_NE(readText(folder() / "_Links.html").find("N:Links\n"), std::string::npos);
}

// A run joins a chat's links to the archive only as it writes it; what it
// writes is byte for byte what merging them in and sorting every list
// makes, whatever state the archive was left in by hand.
TEST_F(LinkPages, JoiningAChatsLinksWritesWhatMergingThemWould) {
  const auto dated = [](const std::string &date, const std::string &url) {
    return "<dict><key>date</key><date>" + date + "</date><key>linkurl</key><string>" + url + "</string></dict>";
  };
  const auto stored = [](const std::string &entries) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><array>" + entries +
           "</array></plist>";
  };
  const std::string alice = "<dict><key>speaker</key><string>alice1979</string><key>urls</key><array>" +
                            dated("2006-01-01T00:00:00Z", "http://old/late") + "<dict><key>linkurl</key><string>" +
                            "http://old/undated</string></dict>" + dated("2005-12-30T10:00:00Z", "http://old/tie") +
                            "</array></dict>";
  const std::vector<std::optional<std::string>> archives = {
      std::nullopt,
      stored(""),
      stored(alice),
      // A damaged entry of the same name first, and a list nobody's name.
      stored("<dict><key>speaker</key><string>alice1979</string><key>urls</key><string>x</string></dict>"
             "<dict><key>urls</key><array>" + dated("2007-01-01T00:00:00Z", "http://b") +
             dated("2004-01-01T00:00:00Z", "http://a") + "</array></dict>" + alice),
  };
  TranscriptSpec spec;
  spec.others = {kAlice};
  MessageSpec twice = postsLink(kAlice, 157629600, "http://new/tie-1");
  RunSpec second = text("http://new/tie-2");
  second.link = LinkSpec{"page?q=1", true, "http://base.example/dir/"};
  twice.runs.push_back(second);
  spec.messages = {postsLink(kMe, 157629700, "http://new/mine", true), twice,
                   postsLink(kAlice, 100000000, "http://new/early"), says(kAlice, 157629800, "no link")};
  const auto log = ICLPChatLog::initWithArchiveData(keyedTranscript(spec), ICLPChatLog::Format::iChat3, "alice1979");
  ASSERT_TRUE(log);

  const fs::path archive = folder() / "gatheredURLs.plist";
  const auto written = [&] {
    std::vector<std::pair<std::string, std::string>> files;
    for (const std::string &name : filesBelow(folder()))
      files.emplace_back(name, readText(folder() / name));
    return files;
  };
  const auto start = [&](const std::optional<std::string> &text) {
    for (const std::string &name : filesBelow(folder()))
      if (name != "linktemplate.html")
        fs::remove(folder() / name);
    if (text)
      writeText(archive, *text);
  };
  for (const auto &text : archives) {
    start(text);
    ICLPLogGenerator::GenerateLinkFiles(&*log);
    const auto joined = written();

    start(text);
    auto merged = loadGatheredArchive(archive);
    ASSERT_TRUE(merged);
    ICLPLogGenerator::MergeLinks(*log, *merged->get<PlistValue::Array>(), {}, ICLPLogGenerator::Sorting::EveryList);
    ASSERT_TRUE(writeArchiveXml(archive, *merged));
    ICLPLogGenerator::RebuildLinkPages(*merged->get<PlistValue::Array>());
    EXPECT_EQ(joined, written()) << text.value_or("no archive");
    EXPECT_NE(readText(archive).find("http://base.example/dir/page?q=1"), std::string::npos);
  }
}

TEST(LinkText, CompressesPastFortyUnitsAndEscapesEveryOtherUnit) {
  const std::string forty(40, 'a');
  EXPECT_EQ(ICLPLogGenerator::CompressedLinkForList(forty), forty);
  const std::string fortyOne = std::string(20, 'b') + "X" + std::string(20, 'c');
  EXPECT_EQ(ICLPLogGenerator::CompressedLinkForList(fortyOne), std::string(20, 'b') + " . . . " + std::string(20, 'c'));
  // Counted in UTF-16 units: forty accented letters fit, as do twenty emoji.
  std::string accented;
  for (int i = 0; i < 40; ++i)
    accented += "\u00e9";
  EXPECT_EQ(ICLPLogGenerator::CompressedLinkForList(accented), accented);

  EXPECT_EQ(ICLPLogGenerator::stringWithFunkyURLStuffInserted("john doe"), "john%20doe");
  EXPECT_EQ(ICLPLogGenerator::stringWithFunkyURLStuffInserted("a.b/c-d_e@f"), "a%2Eb%2Fc%2Dd%5Fe%40f");
  EXPECT_EQ(ICLPLogGenerator::stringWithFunkyURLStuffInserted("caf\u00e9"), "caf%E9");
  // Above 255 the high digit runs past "F": 0x0410 >> 4 is 0x41, "A" + 55.
  EXPECT_EQ(ICLPLogGenerator::stringWithFunkyURLStuffInserted("\u0410"), "%x0");
  EXPECT_EQ(ICLPLogGenerator::stringWithFunkyURLStuffInserted("%41"), "%2541") << "never re-encoded";
}

TEST(SafeFileNames, OrdinaryNamesAreKeptAndOthersMadeSafe) {
  EXPECT_EQ(safeFileStem("john doe", ".html"), "john doe");
  EXPECT_EQ(safeFileStem("..", ".html"), "_.");
  EXPECT_EQ(safeFileStem(".profile", ".html"), "_profile");
  EXPECT_EQ(safeFileStem("a/b\nc", ".html"), "a_b_c");
  EXPECT_EQ(safeFileStem("", ".html"), "_");
  const std::string_view own[] = {"stats.html"};
  EXPECT_EQ(safeFileStem("stats", ".html", own), "_stats");
  EXPECT_EQ(safeFileStem("stats", "-images.html", own), "stats");

  std::string longName;
  for (int i = 0; i < 200; ++i)
    longName += "\u00e9"; // two bytes each
  const std::string stem = safeFileStem(longName, "-images.html");
  EXPECT_LE(stem.size() + 12, 255u);
  EXPECT_EQ(stem.substr(0, 2), "\u00e9");
  EXPECT_EQ(stem[stem.size() - 9], '~');
  EXPECT_EQ((static_cast<unsigned char>(stem[stem.size() - 10]) & 0xC0), 0x80u) << "cut between characters";
  EXPECT_NE(safeFileStem(longName + "x", "-images.html"), stem) << "long names stay apart";

  // Names that must never share a file: one changed, or looking so, is tagged.
  const std::string_view index[] = {"index.html"};
  for (const std::string name : {"a/b", "a_b~0123abcd", "index.html"})
    EXPECT_NE(distinctFileStem(name, "", index), safeFileStem(name, "", index)) << name;
  for (const std::string name : {"a_b", "a_b~0123abcg", "alice1979"})
    EXPECT_EQ(distinctFileStem(name, "", index), name) << name;
  EXPECT_NE(distinctFileStem("a/b", ""), distinctFileStem("a\nb", ""));
}

} // namespace
} // namespace parlova::testing
