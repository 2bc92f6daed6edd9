#include "mail/SmtpSession.h"

#include "platform/LoadableModule.h"

namespace parlova {

std::variant<std::unique_ptr<SmtpSession>, std::string> SmtpSession::open(const MailServer &server,
                                                                          const MailMessage &message) {
  const auto found = moduleSymbol("libparlova-mail.so", kOpenSmtpSessionSymbol);
  if (const auto *why = std::get_if<std::string>(&found))
    return *why;
  const auto openSession = reinterpret_cast<OpenSmtpSessionFunction>(std::get<void *>(found));
  return std::unique_ptr<SmtpSession>(openSession(&server, &message));
}

} // namespace parlova
