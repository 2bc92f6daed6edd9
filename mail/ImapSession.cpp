#include "mail/ImapSession.h"

#include "platform/LoadableModule.h"
#include "platform/Log.h"

namespace parlova {

std::variant<ImapResult, std::string> ImapSession::store(const MailServer &server, const ImapRequest &request,
                                                         const std::function<bool()> &keepGoing) {
  const auto found = moduleSymbol("libparlova-mail.so", kStoreByImapSymbol);
  if (const auto *why = std::get_if<std::string>(&found))
    return *why;
  const auto storeByImap = reinterpret_cast<StoreByImapFunction>(std::get<void *>(found));
  MailServer logged = server;
  logged.log = &logLine;
  ImapResult result;
  storeByImap(&logged, &request, &keepGoing, &result);
  return result;
}

} // namespace parlova
