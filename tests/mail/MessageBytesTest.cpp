// The bytes a mailbox stores are put together here around the framework's
// headers; they must be the framework's own bytes for the same message.

#include <gtest/gtest.h>

#include <random>
#include <regex>

#include "mail/SmtpSession.h"
#include "mail/TextPartBody.h"
#include "platform/LoadableModule.h"

namespace parlova {
namespace {

// The framework dates a message now and names its boundary at random.
std::string withoutDateAndBoundary(const std::vector<uint8_t> &bytes) {
  const std::string text =
      std::regex_replace(std::string(bytes.begin(), bytes.end()), std::regex("=_[0-9a-f]{32}"), "BOUNDARY");
  return std::regex_replace(text, std::regex("^Date: .*\n"), "");
}

std::vector<uint8_t> byFrameworkAlone(MailMessage message) {
  const auto found = moduleSymbol("libparlova-mail.so", kRenderMessageSymbol);
  EXPECT_TRUE(std::holds_alternative<void *>(found));
  using Encoding = TextPartBody::Encoding;
  message.plainQuotedPrintable =
      TextPartBody::encodingFor(message.plainText, message.labelledParts) == Encoding::QuotedPrintable;
  message.htmlQuotedPrintable =
      TextPartBody::encodingFor(message.html, message.labelledParts) == Encoding::QuotedPrintable;
  std::vector<uint8_t> bytes;
  reinterpret_cast<RenderMessageFunction>(std::get<void *>(found))(&message, &bytes);
  return bytes;
}

TEST(MessageBytes, AreTheFrameworksOwnForEveryKindOfBody) {
  const std::string longLine(1000, 'z');
  const std::vector<std::string> pieces = {
      "a", " ", "\t", "=", "\n", "\r", "\r\n", "\xc3\xa9", std::string(1, '\0'), "\x7f", "\xff", "  \n",
      std::string(70, 'y'), std::string(71, 'y'), longLine, "<p>", "."};
  std::mt19937 random(20071);
  const auto body = [&](int most) {
    std::string text;
    for (int n = static_cast<int>(random() % most); n > 0; --n)
      text += pieces[random() % pieces.size()];
    return text;
  };
  std::vector<std::pair<std::string, std::string>> bodies = {
      {"", ""}, {"plain\n", "<p>h\xc3\xa9llo</p>\n"}, {"no end", "last="}, {"\n\n", "\xc3\xa9\n\n\n"}};
  // Bodies longer than the pieces they are written in, with a line across
  // the seam.
  bodies.push_back({std::string(70000, 'q') + "\n" + std::string(65530, 'w') + "\xc3\xa9 \n", longLine + "\n"});
  for (int i = 0; i < 300; ++i)
    bodies.push_back({body(14), body(14)});

  // A body made from its source comes in pieces of any size, a blank
  // before a line feed split from it too.
  const auto inPieces = [](const std::string &text) {
    return MessageBody::madeBy([&text](const PieceSink &piece) {
      for (size_t at = 0, size = 1; at < text.size(); at += size, size = size % 7 + 1)
        piece(std::string_view(text).substr(at, size));
    });
  };
  for (const auto &[plain, html] : bodies)
    for (const int kind : {0, 1, 2}) {
      const bool mailbox = kind > 0;
      MailMessage message;
      message.subject = "Chat with M\xc3\xbcller";
      message.from = "parlovauser@example.org";
      message.to = "archive@example.org";
      message.messageId = "parlova.1.abc@example.org";
      message.plainText = kind == 2 ? inPieces(plain) : MessageBody(plain);
      message.html = kind == 2 ? inPieces(html) : MessageBody(html);
      message.labelledParts = mailbox;
      const auto made = SmtpSession::messageBytes(message);
      ASSERT_TRUE(std::holds_alternative<std::vector<uint8_t>>(made));
      ASSERT_EQ(withoutDateAndBoundary(std::get<std::vector<uint8_t>>(made)),
                withoutDateAndBoundary(byFrameworkAlone(message)))
          << "kind " << kind << "\nplain " << testing::PrintToString(plain) << "\nhtml "
          << testing::PrintToString(html);
    }
}

} // namespace
} // namespace parlova
