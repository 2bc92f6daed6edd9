// The image archive filled from transcripts carrying real pictures, and the
// gallery pages and top images built from it, compared with pages written
// out by hand.
#include <gtest/gtest.h>


#include "foundation/PropertyListValue.h"
#include "generator/ChatLibrary.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/LinkedPageBody.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "samples/ImageWriter.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

const Account kAlice{"AIM", "alice1979"};
const Account kMe{"AIM", "me2004"};

RunSpec attached(AttachmentSpec attachment) {
  RunSpec run = text("\uFFFC");
  run.attachment = std::move(attachment);
  return run;
}

AttachmentSpec file(std::string name, std::vector<uint8_t> bytes) {
  return AttachmentSpec{.fileName = std::move(name), .bytes = std::move(bytes)};
}

class ImagePages : public ::testing::Test {
protected:
  void SetUp() override {
    fs::create_directories(folder() / "Images");
    writeText(folder() / "imagetemplate.html", "N:____NAME\nC:____CONTENTS\nI:____IMAGES\n");
  }
  fs::path folder() const { return home_.parlovaFolder(); }
  static void generate(const TranscriptSpec &spec, const std::string &otherParty) {
    const auto log = ICLPChatLog::initWithArchiveData(keyedTranscript(spec), ICLPChatLog::Format::iChat3, otherParty);
    ASSERT_TRUE(log);
    ICLPLogGenerator::GenerateImageFiles(&*log);
  }
  PlistValue::Array archive() const {
    const auto bytes = readFileContents(folder() / "gatheredImages.plist");
    if (!bytes)
      return {};
    const auto parsed = PlistValue::parse(*bytes);
    return parsed && parsed->get<PlistValue::Array>() ? *parsed->get<PlistValue::Array>() : PlistValue::Array{};
  }

  InProcessHome home_;
};

struct Stored {
  std::string fileName;
  int64_t width, height;
};

std::vector<Stored> storedEntries(const PlistValue &speaker) {
  std::vector<Stored> stored;
  for (const PlistValue &entry : *speaker.objectForKey("filenames")->get<PlistValue::Array>())
    stored.push_back({*entry.stringForKey("filename"), *entry.integerForKey("width"), *entry.integerForKey("height")});
  return stored;
}

// A long chat's library page is made twice and handed out in pieces; its
// bytes are those of the page made whole, whatever the pieces part: labels
// and body tags parted between pieces, labels found in the head or past the
// body, overlapping, repeated, not found, or without a link.
TEST(LinkedPageBody, InPiecesOfAnySizeItIsThePageMadeWhole) {
  using Label = LinkedPageBody::Label;
  const std::vector<std::pair<std::string, std::vector<Label>>> cases = {
      {"<html><head>[a]</head><body>x [a] [b] [a][a] [c]</body></html>",
       {{"[a]", "<A>"}, {"[c]", std::nullopt}, {"[b]", "<B>"}, {"[a]", "<A2>"}, {"[a]", "<A3>"}, {"[a]", "<A4>"}}},
      {"<body>[[a]]</body> [a] </body>!", {{"[[a]]", "L1"}, {"[a]", "L2"}, {"[a]", "L3"}}},
      {"no body at all [x][x]", {{"[x]", "X"}, {"[y]", "Y"}, {"[x]", std::nullopt}, {"[x]", "Z"}}},
      {"</body> then <body>[x]", {{"[x]", "X"}}},
      {"<body>[x</body>]", {{"[x</body>]", "X"}}},
      {"<body>[long label][long label]</body>", {{"[long label]", std::string(40, 'L')}, {"[long label]", "S"}}},
  };
  for (const auto &[html, labels] : cases) {
    const LinkedPageBody body(labels);
    const std::string whole = body.linked(html);
    for (size_t size = 1; size <= 8; ++size) {
      std::string streamed;
      body.write(
          [&](const PieceSink &piece) {
            for (size_t at = 0; at < html.size(); at += size)
              piece(std::string_view(html).substr(at, size));
          },
          [&](std::string_view piece) { streamed += piece; });
      EXPECT_EQ(streamed, whole) << html << " in pieces of " << size;
    }
  }
}

// The chat's page made either way: the labels of its files, typed in its
// text as well, escaped, unnamed, or with no stored copy.
TEST_F(ImagePages, ALongChatsLibraryPageInPiecesIsThePageMadeWhole) {
  TranscriptSpec spec;
  spec.others = {kAlice};
  const auto png = pictureBytes(ImageFormat::PNG, 4, 4);
  std::string typed;
  for (int i = 0; i < 40; ++i)
    typed += i % 3 ? "[photo.png]" : "[a&lt;b&gt;.png] x";
  for (int i = 0; i < 300; ++i) {
    const double time = 157629600 + i * 60;
    spec.messages.push_back(says(i % 2 ? kMe : kAlice, time, typed.substr(0, static_cast<size_t>(i % 97) * 5)));
    if (i % 7 == 0)
      spec.messages.push_back(MessageSpec{kAlice, time + 1,
                                          {attached(file("photo.png", png)), attached(file("a<b>.png", png)),
                                           attached(file("", png)), attached(file("gone.png", png))}});
  }
  const auto log = ICLPChatLog::initWithArchiveData(keyedTranscript(spec), ICLPChatLog::Format::iChat3, "alice1979");
  ASSERT_TRUE(log);
  ICLPLogGenerator::GenerateImageFiles(&*log);
  for (const auto &entry : fs::directory_iterator(folder() / "Images"))
    if (entry.path().filename().string().starts_with("gone"))
      fs::remove(entry.path());

  std::string whole, streamed;
  ChatLibrary::writePageBody(*log, false, [&](std::string_view piece) { whole += piece; });
  ChatLibrary::writePageBody(*log, true, [&](std::string_view piece) { streamed += piece; });
  EXPECT_EQ(streamed, whole);
  EXPECT_NE(whole.find("\">[photo.png]</a>"), std::string::npos);
  EXPECT_NE(whole.find("\">[a&lt;b&gt;.png]</a>"), std::string::npos);
  EXPECT_NE(whole.find("\">[attached item]</a>"), std::string::npos);
  EXPECT_EQ(whole.find("\">[gone.png]</a>"), std::string::npos);
}

TEST_F(ImagePages, PicturesAreStoredWithTheirSizesInPointsNewestFirst) {
  TranscriptSpec spec;
  spec.others = {kAlice};
  // 2005-12-30 10:00:00 UTC, then a message a minute later.
  MessageSpec first{kAlice, 157629600, {text("pictures: "),
                                       attached(file("wide.png", pictureBytes(ImageFormat::PNG, 120, 45, 144))),
                                       attached(file("tall.jpg", pictureBytes(ImageFormat::JPEG, 50, 80))),
                                       attached(file("square.gif", pictureBytes(ImageFormat::GIF, 30, 30)))}};
  AttachmentSpec album{.fileName = "album", .isFolder = true,
                       .children = {file("inside.txt", {'h', 'i'})}};
  MessageSpec second{kAlice, 157629660, {attached(file("scan.tiff", pictureBytes(ImageFormat::TIFF, 200, 100, 36))),
                                        attached(album), attached(file("paper.pdf", pdfBytes())),
                                        attached(file("notes", {'n', 'o'}))}};
  spec.messages = {first, second, says(kMe, 157629700, "no pictures from me")};
  generate(spec, "alice1979");

  const auto speakers = archive();
  ASSERT_EQ(speakers.size(), 1u);
  const std::string later = "-alice1979-2005-12-30 10:01:00 +0000";
  const std::string earlier = "-alice1979-2005-12-30 10:00:00 +0000";
  const auto stored = storedEntries(speakers[0]);
  ASSERT_EQ(stored.size(), 7u);
  // Newest first; within one message the order is not defined, so the
  // later message's four come before the earlier message's three.
  std::map<std::string, std::pair<int64_t, int64_t>> sizes;
  for (size_t i = 0; i < stored.size(); ++i) {
    EXPECT_EQ(stored[i].fileName.find(i < 4 ? later : earlier), stored[i].fileName.find('-')) << stored[i].fileName;
    sizes[stored[i].fileName] = {stored[i].width, stored[i].height};
  }
  EXPECT_EQ(sizes["Images/wide" + earlier + ".png"], std::make_pair(int64_t{60}, int64_t{22})) << "144 dpi: points";
  EXPECT_EQ(sizes["Images/tall" + earlier + ".jpg"], std::make_pair(int64_t{50}, int64_t{80}));
  EXPECT_EQ(sizes["Images/square" + earlier + ".gif"], std::make_pair(int64_t{30}, int64_t{30}));
  EXPECT_EQ(sizes["Images/scan" + later + ".tiff"], std::make_pair(int64_t{400}, int64_t{200}));
  EXPECT_EQ(sizes["Images/album" + later + "."], std::make_pair(int64_t{400}, int64_t{200}))
      << "a folder takes the size of the file before it";
  EXPECT_EQ(sizes["Images/paper" + later + ".pdf"], std::make_pair(int64_t{0}, int64_t{0}));
  EXPECT_EQ(sizes["Images/notes" + later + "."], std::make_pair(int64_t{0}, int64_t{0}));

  for (const auto &[name, size] : sizes)
    EXPECT_TRUE(fs::exists(folder() / name)) << name;
  EXPECT_EQ(readText(folder() / ("Images/album" + later + ".") / "inside.txt"), "hi");
  EXPECT_EQ(readFileContents(folder() / ("Images/tall" + earlier + ".jpg")), pictureBytes(ImageFormat::JPEG, 50, 80));

  // The newest three dates, oldest first: all attachments of a message
  // share one date, so two messages give two top images.
  const auto top = filesBelow(folder() / "Images" / "topimages");
  ASSERT_EQ(top.size(), 2u);
  EXPECT_EQ(top[0].substr(0, 3), "01.");
  EXPECT_EQ(top[1].substr(0, 3), "02.");
}

TEST_F(ImagePages, SecondTranscriptAppendsAndSortsEverySpeaker) {
  TranscriptSpec older;
  older.others = {kAlice};
  older.messages = {MessageSpec{kAlice, 100000000, {attached(file("old.png", pictureBytes(ImageFormat::PNG, 4, 4)))}}};
  TranscriptSpec newer;
  newer.others = {kAlice};
  newer.messages = {MessageSpec{kMe, 200000000, {attached(file("mine.png", pictureBytes(ImageFormat::PNG, 8, 4)))}},
                    MessageSpec{kAlice, 150000000, {attached(file("mid.png", pictureBytes(ImageFormat::PNG, 4, 8)))}}};
  generate(older, "alice1979");
  generate(newer, "alice1979");
  generate(older, "alice1979");

  const auto speakers = archive();
  ASSERT_EQ(speakers.size(), 2u);
  EXPECT_EQ(*speakers[0].stringForKey("speaker"), "alice1979") << "first seen stays first";
  const auto alice = storedEntries(speakers[0]);
  ASSERT_EQ(alice.size(), 3u) << "the same transcript twice is recorded twice";
  EXPECT_EQ(alice[0].fileName.substr(0, 11), "Images/mid-");
  EXPECT_EQ(alice[1].fileName, alice[2].fileName);
}

TEST_F(ImagePages, PagesGroupByMonthNumberWithFiveCellsToARow) {
  const auto entry = [](double date, std::string name, int64_t width, int64_t height) {
    return PlistValue(PlistValue::Dictionary{
        {"date", Date(date)}, {"filename", std::move(name)}, {"width", width}, {"height", height}});
  };
  PlistValue::Array alice = {entry(132969600, "Images/a b.jpg", 100, 50),   // 2005-03-20
                             entry(132105600, "Images/doc.pdf", 0, 0),      // 2005-03-10
                             entry(100137600, "Images/old.PDF", 0, 0),      // 2004-03-05
                             entry(97286400, "Images/sq.png", 40, 40)};     // 2004-02-01
  PlistValue::Array bob;
  for (int day = 15; day >= 11; --day)
    bob.push_back(entry(132192000 + 86400.0 * (day - 11), // 2005-03-15 down to 03-11
                        "Images/b" + std::to_string(day) + ".gif", 10, 20));
  bob.push_back(entry(126316800, "Images/jan.png", 30, 20)); // 2005-01-02
  const PlistValue archiveValue(PlistValue::Array{
      PlistValue::Dictionary{{"speaker", "alice"}, {"filenames", alice}},
      PlistValue::Dictionary{{"speaker", "bob"}, {"filenames", bob}}});
  ASSERT_TRUE(writeFileAtomically(folder() / "gatheredImages.plist", archiveValue.serialized(PlistFormat::Binary)));
  for (const char *name : {"a b.jpg", "b15.gif", "b14.gif"})
    writeText(folder() / "Images" / name, name);

  ICLPLogGenerator::GenerateImageFiles(nullptr);

  const auto heading = [](const std::string &label) {
    return "\n<h3>" + label + "</h3>\n<table class=\"images\" cellpadding=0 cellspacing=10>\n";
  };
  const auto cell = [](const std::string &escaped, const std::string &size) {
    return "<td><a href=\"" + escaped + "\" target=\"_blank\"><img src=\"" + escaped + "\" " + size + "/></a></td>";
  };
  const std::string end = "</tr></table></ul>", row = "</tr><tr>";
  const std::string a1 = cell("Images%2Fa%20b%2Ejpg", "width=\"90\"");
  const std::string a2 = R"(<td><a href="Images%2Fdoc%2Epdf" target="_blank"><img src="Images/pdf.png"/></a></td>)";
  const std::string a3 = cell("Images%2Fold%2EPDF", "height=\"90\"");
  const std::string a4 = cell("Images%2Fsq%2Epng", "height=\"90\"");
  std::vector<std::string> b;
  for (int day = 15; day >= 11; --day)
    b.push_back(cell("Images%2Fb" + std::to_string(day) + "%2Egif", "height=\"90\""));
  const std::string b6 = cell("Images%2Fjan%2Epng", "width=\"90\"");
  const auto index = [](int active) {
    const auto item = [&](const std::string &href, const std::string &label, int count, bool on) {
      return std::string(on ? "<li class=\"active\">" : "<li>") + "<a href=\"" + href + "\">" + label +
             "</a><span class=\"numb\">(" + std::to_string(count) + ")</span></li>";
    };
    return item("Images.html", "All", 10, active < 0) + item("alice-images.html", "alice", 4, active == 0) +
           item("bob-images.html", "bob", 6, active == 1);
  };

  // March 2004 follows March 2005 with nothing between: one section.
  EXPECT_EQ(readText(folder() / "alice-images.html"), "N:alice\nC:" + index(0) + "\nI:" + heading("March 2005") + a1 +
                                                          a2 + a3 + end + heading("February 2004") + a4 + "\n");
  EXPECT_EQ(readText(folder() / "bob-images.html"), "N:bob\nC:" + index(1) + "\nI:" + heading("March 2005") + b[0] +
                                                        b[1] + b[2] + b[3] + b[4] + row + end +
                                                        heading("January 2005") + b6 + "\n");
  // On the shared page the March 2004 cell sits in March 2005 but counts
  // under March 2004, so the row breaks after bob's third cell.
  EXPECT_EQ(readText(folder() / "Images.html"),
            "N:Images\nC:" + index(-1) + "\nI:" + heading("March 2005") + a1 + a2 + a3 + b[0] + b[1] + b[2] + row +
                b[3] + b[4] + end + heading("January 2005") + b6 + end + heading("February 2004") + a4 + end + end +
                "\n");

  EXPECT_EQ(filesBelow(folder() / "Images" / "topimages"), (std::vector<std::string>{"01.gif", "02.gif", "03.jpg"}));
  EXPECT_EQ(readText(folder() / "Images" / "topimages" / "01.gif"), "b14.gif");
  EXPECT_EQ(readText(folder() / "Images" / "topimages" / "03.jpg"), "a b.jpg");
}

TEST_F(ImagePages, DamagedArchiveKeepsItsFileAndPagesShowNothing) {
  writeText(folder() / "gatheredImages.plist", "not a property list");
  fs::create_directories(folder() / "Images" / "topimages");
  writeText(folder() / "Images" / "topimages" / "01.png", "stale");
  TranscriptSpec spec;
  spec.others = {kAlice};
  spec.messages = {MessageSpec{kAlice, 157629600, {attached(file("a.png", pictureBytes(ImageFormat::PNG, 2, 2)))}}};
  generate(spec, "alice1979");

  EXPECT_EQ(readText(folder() / "gatheredImages.plist"), "not a property list");
  EXPECT_TRUE(fs::exists(folder() / "Images" / "a-alice1979-2005-12-30 10:00:00 +0000.png")) << "still stored";
  EXPECT_EQ(readText(folder() / "Images.html"),
            "N:Images\nC:<li class=\"active\"><a href=\"Images.html\">All</a><span class=\"numb\">(0)</span></li>\n"
            "I:</tr></table></ul>\n");
  EXPECT_FALSE(fs::exists(folder() / "alice1979-images.html"));
  EXPECT_TRUE(filesBelow(folder() / "Images" / "topimages").empty());
}

TEST_F(ImagePages, HostileNamesStayInTheirFoldersAndEntriesMatchTheDisk) {
  TranscriptSpec spec;
  const Account climber{"AIM", "../up"};
  spec.others = {climber};
  const std::string longName = std::string(300, 'x') + ".png";
  spec.messages = {MessageSpec{climber, 157629600,
                               {attached(file("../../evil.png", {1})), attached(file(".hidden", {2})),
                                attached(file(longName, {3})), attached(file("a\nb.jpg", {4}))}}};
  generate(spec, "../up");

  const auto speakers = archive();
  ASSERT_EQ(speakers.size(), 1u);
  const auto stored = storedEntries(speakers[0]);
  ASSERT_EQ(stored.size(), 4u);
  for (const Stored &entry : stored) {
    ASSERT_EQ(entry.fileName.substr(0, 7), "Images/");
    const std::string name = entry.fileName.substr(7);
    EXPECT_EQ(name.find('/'), std::string::npos) << name;
    EXPECT_NE(name.front(), '.') << name;
    EXPECT_LE(name.size(), 255u);
    EXPECT_TRUE(fs::is_regular_file(folder() / entry.fileName)) << name;
  }
  size_t storedFiles = 0;
  for (const auto &entry : fs::directory_iterator(folder() / "Images"))
    storedFiles += entry.path().filename() != "topimages";
  EXPECT_EQ(storedFiles, 4u);
  EXPECT_EQ(filesBelow(home_.path()).size(), filesBelow(folder()).size()) << "nothing outside the folder";
  EXPECT_TRUE(fs::exists(folder() / "_._up-images.html"));
  EXPECT_FALSE(fs::exists(home_.path() / "Library" / "up-images.html"));
}

// A PNG that claims 60,000 by 50,000 pixels and carries almost none.
std::vector<uint8_t> pngClaimingBillionsOfPixels() {
  const auto crc = [](const std::vector<uint8_t> &bytes) {
    uint32_t c = 0xFFFFFFFFu;
    for (const uint8_t byte : bytes) {
      c ^= byte;
      for (int k = 0; k < 8; ++k)
        c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
    }
    return ~c;
  };
  const auto big = [](std::vector<uint8_t> &out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
      out.push_back(static_cast<uint8_t>(value >> shift));
  };
  std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  std::vector<uint8_t> header = {'I', 'H', 'D', 'R'};
  big(header, 60000), big(header, 50000);
  header.insert(header.end(), {8, 2, 0, 0, 0});
  big(png, 13);
  png.insert(png.end(), header.begin(), header.end());
  big(png, crc(header));
  // The decoder reports the size once the pixel data begins.
  const std::vector<uint8_t> data = {'I', 'D', 'A', 'T', 0x78, 0x9C, 0x63, 0x00, 0x00};
  big(png, static_cast<uint32_t>(data.size() - 4));
  png.insert(png.end(), data.begin(), data.end());
  big(png, crc(data));
  return png;
}

// A picture in the layout Foundation serializes a regular file in, spelled
// out field by field (FileWrapperTest.cpp has the sources): the contents
// under "..", in the long form with padding, and the attribute record under
// ".", which is not the picture.
std::vector<uint8_t> foundationWrapper(const std::string &name, const std::vector<uint8_t> &contents) {
  std::vector<uint8_t> out;
  const auto word = [&out](uint32_t v) {
    for (int i = 0; i < 4; ++i)
      out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  const auto append = [&out](std::string_view text) { out.insert(out.end(), text.begin(), text.end()); };
  append("rtfd"), word(0), word(3), word(4);
  word(2), append("..");
  word(19), append("__@PreferredName@__");
  word(23), append("__@UTF8PreferredName@__");
  word(1), append(".");
  word(static_cast<uint32_t>(20 + contents.size())), word(static_cast<uint32_t>(8 + name.size()));
  word(static_cast<uint32_t>(8 + name.size())), word(38);
  word(1), word(0x80000000), word(static_cast<uint32_t>(contents.size())), word(4), word(0);
  out.insert(out.end(), contents.begin(), contents.end());
  word(1), word(static_cast<uint32_t>(name.size())), append(name);
  word(1), word(static_cast<uint32_t>(name.size())), append(name);
  word(1), word(30), word(1), word(2), append(".."), word(16), word(0), word(0644), word(2), word(1);
  return out;
}

TEST_F(ImagePages, FoundationsWrappersGiveTheVeryPictureInBothFormats) {
  const auto png = pictureBytes(ImageFormat::PNG, 64, 48);
  const auto jpeg = pictureBytes(ImageFormat::JPEG, 40, 90, 144);
  TranscriptSpec spec;
  spec.others = {kAlice};
  spec.messages = {MessageSpec{kAlice, 157629600, {attached({.serialized = foundationWrapper("cake.png", png)})}},
                   MessageSpec{kAlice, 157629660, {attached({.serialized = foundationWrapper("sea.jpg", jpeg)})}}};
  const auto chat2 = ICLPChatLog::initWithArchiveData(typedStreamTranscript(spec), ICLPChatLog::Format::iChat2,
                                                      "alice1979");
  ASSERT_TRUE(chat2);
  ICLPLogGenerator::GenerateImageFiles(&*chat2);
  spec.messages[0].time += 86400, spec.messages[1].time += 86400;
  generate(spec, "alice1979");

  const auto stored = storedEntries(archive().at(0));
  ASSERT_EQ(stored.size(), 4u);
  for (const auto &entry : stored) {
    const bool isPng = entry.fileName.ends_with(".png");
    EXPECT_EQ(readFileContents(folder() / entry.fileName), isPng ? png : jpeg) << entry.fileName;
    EXPECT_EQ(std::make_pair(entry.width, entry.height),
              isPng ? std::make_pair(int64_t{64}, int64_t{48}) : std::make_pair(int64_t{20}, int64_t{45}));
  }
  const std::string page = readText(folder() / "Images.html");
  EXPECT_NE(page.find("cake%2Dalice1979%2D2005%2D12%2D31%2010%3A00%3A00%20%2B0000%2Epng\" width=\"90\""),
            std::string::npos)
      << page;
  EXPECT_EQ(readFileContents(folder() / "Images" / "topimages" / "03.jpg"), jpeg);
  EXPECT_EQ(readFileContents(folder() / "Images" / "topimages" / "02.png"), png);
}

TEST_F(ImagePages, APictureClaimingBillionsOfPixelsIsMeasuredNotDecoded) {
  TranscriptSpec spec;
  spec.others = {kAlice};
  spec.messages = {MessageSpec{kAlice, 157629600, {attached(file("huge.png", pngClaimingBillionsOfPixels()))}}};
  generate(spec, "alice1979");
  const auto stored = storedEntries(archive().at(0));
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored[0].width, 60000);
  EXPECT_EQ(stored[0].height, 50000);
}

TEST_F(ImagePages, APersonWithNoPicturesGetsAnEmptyPage) {
  const PlistValue archiveValue(
      PlistValue::Array{PlistValue::Dictionary{{"speaker", "nobody"}, {"filenames", PlistValue::Array{}}}});
  writeFileAtomically(folder() / "gatheredImages.plist", archiveValue.serialized(PlistFormat::XML));
  ICLPLogGenerator::GenerateImageFiles(nullptr);
  EXPECT_EQ(readText(folder() / "nobody-images.html"),
            "N:nobody\nC:<li><a href=\"Images.html\">All</a><span class=\"numb\">(0)</span></li>"
            "<li class=\"active\"><a href=\"nobody-images.html\">nobody</a><span class=\"numb\">(0)</span></li>\nI:\n");
}

TEST_F(ImagePages, MissingTemplateStillRefreshesTheTopImages) {
  fs::remove(folder() / "imagetemplate.html");
  TranscriptSpec spec;
  spec.others = {kAlice};
  spec.messages = {MessageSpec{kAlice, 157629600, {attached(file("a.png", pictureBytes(ImageFormat::PNG, 2, 2)))}}};
  generate(spec, "alice1979");
  EXPECT_FALSE(fs::exists(folder() / "Images.html"));
  EXPECT_EQ(filesBelow(folder() / "Images" / "topimages"), std::vector<std::string>{"01.png"});
}

} // namespace
} // namespace parlova::testing
