// Conversions between the archives' UTF-8 and the styled text's UTF-16:
// every position a character that is not ASCII can take, and bad bytes;
// text made safe for a terminal; styled text kept a byte a unit where it
// can be.
#include <gtest/gtest.h>

#include "foundation/AttributedString.h"
#include "foundation/TerminalText.h"
#include "foundation/Unicode.h"

namespace parlova::testing {
namespace {

TEST(Unicode, CharactersBeyondAsciiConvertWhereverTheyStand) {
  // Two, three and four UTF-8 bytes; one and two UTF-16 units.
  const std::vector<std::pair<std::string, std::u16string>> characters = {
      {"\xC3\xA9", u"\u00E9"}, {"\xE2\x82\xAC", u"\u20AC"}, {"\xF0\x9F\x98\x80", u"\U0001F600"}};
  for (const auto &[utf8, utf16] : characters) {
    for (size_t length = 1; length <= 20; ++length) {
      for (size_t at = 0; at < length; ++at) {
        const std::string text = std::string(at, 'a') + utf8 + std::string(length - at - 1, 'b');
        const std::u16string expected = std::u16string(at, u'a') + utf16 + std::u16string(length - at - 1, u'b');
        EXPECT_EQ(utf8ToUtf16(text), expected) << length << " " << at;
        EXPECT_EQ(utf16ToUtf8(expected), text) << length << " " << at;
      }
    }
  }
  EXPECT_EQ(utf8ToUtf16(""), u"");
  EXPECT_EQ(utf8ToUtf16("plain ascii, seventeen"), u"plain ascii, seventeen");
}

TEST(Unicode, BadBytesBecomeReplacementCharacters) {
  for (size_t at = 0; at < 12; ++at) {
    const std::string text = std::string(at, 'x') + "\xFF" + "yz";
    EXPECT_EQ(utf8ToUtf16(text), std::u16string(at, u'x') + u"\uFFFDyz") << at;
  }
  EXPECT_EQ(utf8ToUtf16("a\xC3"), u"a\uFFFD") << "cut short at the end";
  EXPECT_EQ(utf8ToUtf16("\xED\xA0\x80!"), u"\uFFFD!") << "a surrogate written as UTF-8";
}

// A terminal acts on ESC, the other C0 controls, DEL and the C1 controls
// (CSI among them): each is shown, none is sent.
TEST(Unicode, TextForATerminalShowsEveryControlAndSendsNone) {
  const std::pair<std::string, std::string> cases[] = {
      {"caf\xC3\xA9 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
      {"a\nb\tc\rd", "a b c d"},
      {"\x1B]0;title\x07\x1B[2J", "^[]0;title^G^[[2J"},
      {std::string("\0\x01\x1F\x7F", 4), "^@^A^_^?"},
      {"\xC2\x9B" "5m \xC2\x80 \xC2\x9F \xC2\xA0", "^[[5m ^[@ ^[_ \xC2\xA0"},
      {"\xFF\x1B", "\xEF\xBF\xBD^["},
  };
  for (const auto &[typed, shown] : cases)
    EXPECT_EQ(terminalLine(typed), shown) << shown;
}

// Styled text keeps a byte for each unit below 256 and two otherwise; the
// units, runs and copies are the same whichever it chose.
TEST(Unicode, StyledTextKeepsEveryUnitWhicheverWidthItIsKeptIn) {
  const auto link = std::make_shared<const TextAttributes>(
      std::vector<TextAttributes::Entry>{{"NSLink", std::make_shared<const TextAttributes>()}});
  const std::u16string texts[] = {u"",
                                  u"plain",
                                  u"caf\u00E9 \u00FF!",
                                  u"\u0100 starts wide",
                                  u"\U0001F600 x",
                                  u"\xD800 lone",
                                  u"\u00E9\u20AC\u00E9"};
  for (const std::u16string &text : texts) {
    const AttributedString styled(text, {{1, link}, {2, nullptr}, {1, link}});
    const AttributedString copy(styled);
    AttributedString source(styled);
    const AttributedString moved(std::move(source));
    for (const AttributedString *each : {&styled, &copy, &moved}) {
      EXPECT_EQ(each->string(), text);
      ASSERT_EQ(each->length(), text.size());
      std::u16string joined;
      size_t covered = 0;
      for (const AttributeRun &run : each->runs()) {
        EXPECT_EQ(run.location, covered);
        each->appendCharacters(joined, run.location, run.length);
        covered += run.length;
      }
      EXPECT_EQ(joined, text);
      for (size_t i = 0; i < text.size(); ++i)
        EXPECT_EQ(each->characterAtIndex(i), text[i]) << i;
      if (text.size() > 3) {
        EXPECT_EQ(each->attributesAtIndex(3).attributes, link);
      }
    }
    AttributedStringBuilder twice;
    twice.append(styled);
    twice.append(u"\u0101");
    twice.append(moved);
    EXPECT_EQ(std::move(twice).build().string(), text + u"\u0101" + text);
  }
}

} // namespace
} // namespace parlova::testing
