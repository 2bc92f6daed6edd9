// What the XML writer puts out, read back by a reader that is not ours.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "foundation/PropertyList.h"
#include "foundation/PropertyListValue.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

// Texts typed by strangers hold characters XML 1.0 cannot: every file must
// still be well-formed and read back as meant, with U+FFFD in their place,
// and a carriage return must survive a conforming reader.
TEST(PropertyListWriter, XmlThatAnyReaderTakesWhateverTheTextsHold) {
  PlistPtr root(plist_new_dict());
  PlistPtr list(plist_new_array());
  std::string everyControl;
  for (char c = 1; c < 0x20; ++c)
    everyControl += c;
  for (const std::string &text : {everyControl, std::string("\xEF\xBF\xBE\xEF\xBF\xBF"),
                                 std::string("bad \xFF byte"), std::string("\xED\xA0\x80 lone surrogate"),
                                 std::string("fine \xF0\x9F\x98\x80 & <tags> ]]>")})
    plist_array_append_item(list.get(), plist_new_string(text.c_str()));
  plist_dict_set_item(root.get(), "texts", list.release());
  plist_dict_set_item(root.get(), "bad\x01key", plist_new_string("left out"));
  plist_dict_set_item(root.get(), "line\rbreak", plist_new_string("cr\r\nlf"));

  const auto bytes = serializePropertyList(root.get(), PlistFormat::XML);
  ScratchHome home;
  const fs::path file = home.path() / "written.plist";
  writeText(file, std::string(bytes.begin(), bytes.end()));
  std::string controls;
  for (char c = 1; c < 0x20; ++c)
    controls += c == '\t' ? "\\t" : c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\ufffd";
  EXPECT_EQ(plistlibReading(file), R"({"line\rbreak": "cr\r\nlf", "texts": [")" + controls +
                                       R"(", "\ufffd\ufffd", "bad \ufffd byte", "\ufffd lone surrogate", )"
                                       R"("fine \ud83d\ude00 & <tags> ]]>"]})");
  const auto ours = parsePropertyList(bytes);
  ASSERT_TRUE(ours);
  EXPECT_EQ(plistString(plist_dict_get_item(ours.get(), "line\rbreak")), "cr\r\nlf");
}

// The archives are written as XML without the library's tree; the bytes
// must be the library's own for every tree it is trusted with, and every
// other tree must still go to the library.
TEST(PropertyListWriter, WritesTheLibrarysXmlForWhatItWritesItself) {
  const std::vector<std::string> texts = {"", "plain", "a & b < c > d ]]>", "cr\r\nlf\ttab", std::string("nul\0cut", 7),
                                          "\x01\x1F control", "bad \xFF byte", "\xEF\xBF\xBE", "caf\xC3\xA9 \xF0\x9F\x98\x80",
                                          "\xED\xA0\x80 lone surrogate", "&#13; already"};
  const double kInf = std::numeric_limits<double>::infinity();
  const std::vector<double> dates = {0,     -0.5,  1.5,   123456789.75, -978307200.0, -62135596800.0, 1e12, -1e12,
                                     -kInf, kInf, std::nan(""), 2147483647.9, -2147483648.2};
  const std::vector<int64_t> integers = {0, -1, 42, std::numeric_limits<int64_t>::min(),
                                         std::numeric_limits<int64_t>::max()};
  std::mt19937 random(7);
  const auto pick = [&](size_t count) { return static_cast<size_t>(random() % count); };
  std::function<PlistValue(int)> tree = [&](int depth) -> PlistValue {
    switch (pick(depth > 3 ? 4 : 6)) {
    case 0:
      return texts[pick(texts.size())];
    case 1:
      return integers[pick(integers.size())];
    case 2:
      return pick(2) == 1;
    case 3:
      return Date(dates[pick(dates.size())]);
    case 4: {
      PlistValue::Array items;
      for (size_t n = pick(4); n > 0; --n)
        items.push_back(tree(depth + 1));
      return items;
    }
    default: {
      PlistValue::Dictionary entries;
      for (size_t n = pick(4); n > 0; --n)
        entries.emplace_back((n == 1 ? "" : "key\r" + std::to_string(n) + "&"), tree(depth + 1));
      return entries;
    }
    }
  };
  for (int round = 0; round < 300; ++round) {
    const PlistValue value = tree(0);
    ASSERT_TRUE(value.writesXmlItself());
    const auto library = serializePropertyList(value.toNode().get(), PlistFormat::XML);
    const auto ours = value.serialized(PlistFormat::XML);
    ASSERT_EQ(std::string(ours.begin(), ours.end()), std::string(library.begin(), library.end()));
  }
  // Handed out in pieces, across many of them.
  const PlistValue large(PlistValue::Array(30000, PlistValue(PlistValue::Dictionary{{"linkurl", "a<b&c\r"}})));
  const auto whole = serializePropertyList(large.toNode().get(), PlistFormat::XML);
  std::string pieced;
  size_t pieces = 0;
  ASSERT_TRUE(large.writeXml([&](std::string_view piece) { pieced += piece, ++pieces; }));
  EXPECT_EQ(pieced, std::string(whole.begin(), whole.end()));
  EXPECT_GT(pieces, 10u);
  PlistValue::Dictionary manyKeys;
  for (int key = 0; key < 40; ++key)
    manyKeys.emplace_back(std::to_string(key), key);
  const PlistValue many(manyKeys);
  ASSERT_TRUE(many.writesXmlItself());
  const auto library = serializePropertyList(many.toNode().get(), PlistFormat::XML);
  EXPECT_EQ(many.serialized(PlistFormat::XML), library);
  manyKeys.emplace_back("7", 1);
  for (const PlistValue &other :
       {PlistValue(PlistValue::Array{1.5}), PlistValue(PlistValue::Array{PlistValue::Data{1, 2}}),
        PlistValue(PlistValue::Array{PlistValue::Uid{3}}),
        PlistValue(PlistValue::Dictionary{{"same", 1}, {std::string("same\0x", 6), 2}}),
        PlistValue(PlistValue::Dictionary{{"bad\x01key", 1}}), PlistValue(manyKeys)})
    EXPECT_FALSE(other.writesXmlItself());
}

// A damaged file whose dictionary key holds a NUL (bytes from Python's
// plistlib, in both string forms): libplist reads it but aborts when the
// key is asked for, so it must be refused before libplist sees it. The
// same dictionary without the NUL still reads.
TEST(PropertyListReader, RefusesADictionaryKeyHoldingANul) {
  const std::string ascii("bplist00\xd2\x01\x02\x03\x04\x53\x61\x00\x62\x52\x6f\x6b\x10\x01\x51\x78\x08\x0d"
                          "\x11\x14\x16\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x05\x00"
                          "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x18",
                          61);
  const std::string utf16("bplist00\xd1\x01\x02\x65\x00\x63\x00\x61\x00\x66\x00\xe9\x00\x00\x10\x01\x08\x0b"
                          "\x16\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x03\x00\x00\x00"
                          "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x18",
                          59);
  for (const std::string &file : {ascii, utf16})
    EXPECT_EQ(parsePropertyList({reinterpret_cast<const uint8_t *>(file.data()), file.size()}), nullptr);
  std::string mended = ascii;
  mended[15] = 'x';
  const PlistPtr read = parsePropertyList({reinterpret_cast<const uint8_t *>(mended.data()), mended.size()});
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(plistDictionaryEntries(read.get()).front().first, "axb");
}

} // namespace
} // namespace parlova::testing
