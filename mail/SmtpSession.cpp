#include "mail/SmtpSession.h"

#include "foundation/Unicode.h"
#include "platform/LoadableModule.h"
#include "platform/Log.h"

namespace parlova {

std::variant<std::unique_ptr<SmtpSession>, std::string> SmtpSession::open(const MailServer &server,
                                                                          const MailMessage &message) {
  const auto found = moduleSymbol("libparlova-mail.so", kOpenSmtpSessionSymbol);
  if (const auto *why = std::get_if<std::string>(&found))
    return *why;
  const auto openSession = reinterpret_cast<OpenSmtpSessionFunction>(std::get<void *>(found));
  // The header texts come from file names and settings that anyone may have
  // typed: the mail framework drops a header that is not UTF-8, so bytes
  // that are not become U+FFFD here, once, for every caller.
  MailMessage headers = message;
  for (std::string *text : {&headers.subject, &headers.from, &headers.to})
    *text = utf16ToUtf8(utf8ToUtf16(*text));
  MailServer logged = server;
  logged.log = &logLine;
  return std::unique_ptr<SmtpSession>(openSession(&logged, &headers));
}

} // namespace parlova
