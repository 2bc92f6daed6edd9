#include "mail/SmtpSession.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <random>
#include <string_view>

#include "foundation/Unicode.h"
#include "mail/TextPartBody.h"
#include "platform/LoadableModule.h"
#include "platform/Log.h"

namespace parlova {

namespace {

// The header texts come from file names and settings that anyone may have
// typed, so they are made fit here, once, for every header: the mail
// framework drops a header that is not UTF-8, so bytes that are not become
// U+FFFD; and a line break would end the header and start one of the
// typist's choosing, so every control character, line breaks included,
// becomes a space (a run of them one space).
std::string asHeaderValue(std::string_view text) {
  const std::u16string units = utf8ToUtf16(text);
  std::u16string value;
  value.reserve(units.size());
  for (const char16_t unit : units) {
    const bool control = unit < 0x20 || (unit >= 0x7F && unit <= 0x9F) || unit == 0x2028 || unit == 0x2029;
    if (!control)
      value += unit;
    else if (value.empty() || value.back() != u' ')
      value += u' ';
  }
  return utf16ToUtf8(value);
}

// Everything but the bodies: the headers made fit, and the way each body
// goes chosen from the body (the message's own, or the same held).
MailMessage framed(const MailMessage &message, const MessageBody &plain, const MessageBody &html) {
  MailMessage headers;
  headers.subject = asHeaderValue(message.subject);
  headers.from = asHeaderValue(message.from);
  headers.to = asHeaderValue(message.to);
  headers.messageId = asHeaderValue(message.messageId);
  headers.date = message.date;
  headers.labelledParts = message.labelledParts;
  const auto quoted = [&message](const MessageBody &body) {
    return TextPartBody::encodingFor(body, message.labelledParts) == TextPartBody::Encoding::QuotedPrintable;
  };
  headers.plainQuotedPrintable = quoted(plain);
  headers.htmlQuotedPrintable = quoted(html);
  return headers;
}

// What a session keeps may be sent after the transcript it was made from is
// gone, so its bodies hold their text.
MailMessage withHeadersFit(const MailMessage &message) {
  MessageBody plain = message.plainText.held();
  MessageBody html = message.html.held();
  MailMessage ready = framed(message, plain, html);
  ready.plainText = std::move(plain);
  ready.html = std::move(html);
  return ready;
}

// A line of its own that no typist can have put into a header, where the
// framework writes a body; the body is put in its place afterwards.
std::string bodyMark() {
  // One device a thread: a catch-up makes two marks a message, and opening
  // a device for each cost more than the framework's work.
  thread_local std::random_device random;
  char mark[48];
  std::snprintf(mark, sizeof mark, "parlova-body-%08x%08x%08x%08x", random(), random(), random(), random());
  return mark;
}

// RFC 5322's date, in the machine's time zone, with English names whatever
// the locale.
std::string rfc5322Date(double secondsSince1970) {
  static constexpr const char *kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto seconds = static_cast<std::time_t>(secondsSince1970);
  std::tm local{};
  localtime_r(&seconds, &local);
  const long offset = local.tm_gmtoff / 60;
  char text[64];
  std::snprintf(text, sizeof text, "%s, %d %s %d %02d:%02d:%02d %c%02ld%02ld", kDays[local.tm_wday], local.tm_mday,
                kMonths[local.tm_mon], local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec,
                offset < 0 ? '-' : '+', std::labs(offset) / 60, std::labs(offset) % 60);
  return text;
}

// The framework dates every message now; a message for a mailbox carries
// the date it was given instead, in place of the framework's Date line.
void replaceDate(std::vector<uint8_t> &bytes, double secondsSince1970) {
  const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  const size_t headerEnd = std::min(text.find("\r\n\r\n"), text.find("\n\n"));
  const std::string line = "Date: " + rfc5322Date(secondsSince1970);
  size_t at = text.starts_with("Date: ") ? 0 : text.find("\nDate: ");
  if (at == std::string_view::npos || at > headerEnd) {
    const std::string added = line + "\r\n";
    bytes.insert(bytes.begin(), added.begin(), added.end());
    return;
  }
  if (at != 0)
    ++at;
  size_t end = text.find('\n', at);
  if (end > at && text[end - 1] == '\r')
    --end;
  bytes.erase(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin() + static_cast<std::ptrdiff_t>(end));
  bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), line.begin(), line.end());
}

} // namespace

std::variant<std::unique_ptr<SmtpSession>, std::string> SmtpSession::open(const MailServer &server,
                                                                          const MailMessage &message) {
  const auto found = moduleSymbol("libparlova-mail.so", kOpenSmtpSessionSymbol);
  if (const auto *why = std::get_if<std::string>(&found))
    return *why;
  const auto openSession = reinterpret_cast<OpenSmtpSessionFunction>(std::get<void *>(found));
  auto ready = prepared(message);
  if (const auto *why = std::get_if<std::string>(&ready))
    return *why;
  MailServer logged = server;
  logged.log = &logLine;
  return std::unique_ptr<SmtpSession>(openSession(&logged, &std::get<MailMessage>(ready)));
}

std::variant<MailMessage, std::string> SmtpSession::prepared(const MailMessage &message) {
  MailMessage headers = withHeadersFit(message);
  if (message.date) {
    auto bytes = messageBytes(message);
    if (const auto *why = std::get_if<std::string>(&bytes))
      return *why;
    headers.raw = std::move(std::get<std::vector<uint8_t>>(bytes));
  }
  return headers;
}

std::variant<std::vector<uint8_t>, std::string> SmtpSession::messageBytes(const MailMessage &message) {
  auto framed = framedMessage(message);
  if (auto *why = std::get_if<std::string>(&framed))
    return std::move(*why);
  return std::get<FramedMessage>(framed).bytes();
}

void SmtpSession::leaveThread() {
  const auto found = moduleSymbol("libparlova-mail.so", kLeaveThreadSymbol);
  if (const auto *leave = std::get_if<void *>(&found))
    reinterpret_cast<LeaveThreadFunction>(*leave)();
}

std::variant<FramedMessage, std::string> SmtpSession::framedMessage(MailMessage message) {
  const auto found = moduleSymbol("libparlova-mail.so", kRenderMessageSymbol);
  if (const auto *why = std::get_if<std::string>(&found))
    return *why;
  const auto render = reinterpret_cast<RenderMessageFunction>(std::get<void *>(found));
  // The framework writes the headers and the frame around marks in place of
  // the bodies, which would otherwise pass through its copies many times.
  MailMessage frame = framed(message, message.plainText, message.html);
  const std::string plainMark = bodyMark();
  const std::string htmlMark = bodyMark();
  frame.plainText = plainMark;
  frame.html = htmlMark;
  std::vector<uint8_t> rendered;
  {
    // One message at a time: a catch-up composes on two threads when one
    // transcript is too large to be read ahead, and the framework keeps
    // state of its own between messages.
    static std::mutex framework;
    const std::scoped_lock one(framework);
    render(&frame, &rendered);
  }
  if (message.date)
    replaceDate(rendered, *message.date);
  std::string framing(rendered.begin(), rendered.end());
  rendered = {};
  // Each mark stands on a line of its own, the first line of its part's body.
  const size_t plainAt = framing.find("\n" + plainMark + "\n");
  const size_t htmlAt = framing.find("\n" + htmlMark + "\n");
  if (plainAt == std::string::npos || htmlAt == std::string::npos || htmlAt < plainAt)
    return std::string("the mail framework wrote the message without its parts");
  using Encoding = TextPartBody::Encoding;
  const FramedMessage::Slot plainSlot{plainAt + 1, plainMark.size() + 1,
                                      frame.plainQuotedPrintable ? Encoding::QuotedPrintable : Encoding::AsIs};
  const FramedMessage::Slot htmlSlot{htmlAt + 1, htmlMark.size() + 1,
                                     frame.htmlQuotedPrintable ? Encoding::QuotedPrintable : Encoding::AsIs};
  return FramedMessage(std::move(framing), plainSlot, std::move(message.plainText), htmlSlot, std::move(message.html));
}

} // namespace parlova
