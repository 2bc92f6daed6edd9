#include "mail/SmtpSession.h"

#include "platform/LoadableModule.h"

namespace parlova {

std::unique_ptr<SmtpSession> SmtpSession::open(const MailServer &server, const MailMessage &message, std::string &why) {
  const auto found = moduleSymbol("libparlova-mail.so", kOpenSmtpSessionSymbol);
  if (const auto *reason = std::get_if<std::string>(&found)) {
    why = *reason;
    return nullptr;
  }
  const auto openSession = reinterpret_cast<OpenSmtpSessionFunction>(std::get<void *>(found));
  return std::unique_ptr<SmtpSession>(openSession(&server, &message));
}

} // namespace parlova
