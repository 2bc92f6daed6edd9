// Contact cards as the address books on Linux write them.
#include <gtest/gtest.h>

#include "platform/VCard.h"

namespace parlova::testing {
namespace {

TEST(VCardReading, UnfoldsUnescapesAndKeepsParameters) {
  const auto cards = parseVCards("BEGIN:VCARD\r\nVERSION:3.0\r\nN:Lidd\\,ell;Alice;;;\r\n"
                                 "item1.X-AIM;type=HOME;type=pref:alice\r\n  1979\r\n"
                                 "NOTE:line one\\nline two\\; still\r\nIMPP;X-SERVICE-TYPE=AIM:aim:alt\r\n"
                                 "END:VCARD\r\nBEGIN:VCARD\nVERSION:2.1\nTEL;HOME;PREF:123\nEND:VCARD\n");
  ASSERT_EQ(cards.size(), 2u);
  const VCard &alice = cards[0];
  EXPECT_EQ(alice.first("N")->components, (std::vector<std::string>{"Lidd,ell", "Alice", "", "", ""}));
  const VCardProperty *aim = alice.first("X-AIM");
  ASSERT_TRUE(aim);
  EXPECT_EQ(aim->value, "alice 1979") << "a folded line continues after its first blank";
  EXPECT_TRUE(aim->isPreferred());
  EXPECT_EQ(alice.first("NOTE")->value, "line one\nline two; still");
  EXPECT_TRUE(cards[1].first("TEL")->isPreferred()) << "vCard 2.1 bare types";
}

} // namespace
} // namespace parlova::testing
