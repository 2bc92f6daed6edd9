#include "mail/SmtpSession.h"

#include "foundation/Unicode.h"
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

} // namespace

std::variant<std::unique_ptr<SmtpSession>, std::string> SmtpSession::open(const MailServer &server,
                                                                          const MailMessage &message) {
  const auto found = moduleSymbol("libparlova-mail.so", kOpenSmtpSessionSymbol);
  if (const auto *why = std::get_if<std::string>(&found))
    return *why;
  const auto openSession = reinterpret_cast<OpenSmtpSessionFunction>(std::get<void *>(found));
  MailMessage headers = message;
  for (std::string *text : {&headers.subject, &headers.from, &headers.to})
    *text = asHeaderValue(*text);
  MailServer logged = server;
  logged.log = &logLine;
  return std::unique_ptr<SmtpSession>(openSession(&logged, &headers));
}

} // namespace parlova
