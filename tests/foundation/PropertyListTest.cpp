// What the XML writer puts out, read back by a reader that is not ours.
#include <gtest/gtest.h>

#include "foundation/PropertyList.h"
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
