#include "mail/ImapSession.h"

#include "platform/LoadableModule.h"
#include "platform/Log.h"

namespace parlova {

std::variant<std::unique_ptr<ImapSession>, std::string> ImapSession::open(const MailServer &server,
                                                                          const ImapLogin &login) {
  const auto found = moduleSymbol("libparlova-mail.so", kOpenImapSessionSymbol);
  if (const auto *why = std::get_if<std::string>(&found))
    return *why;
  const auto openSession = reinterpret_cast<OpenImapSessionFunction>(std::get<void *>(found));
  MailServer logged = server;
  logged.log = &logLine;
  return std::unique_ptr<ImapSession>(openSession(&logged, &login));
}

} // namespace parlova
