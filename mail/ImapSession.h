// A message stored into a folder of an IMAP mailbox, through the Pantomime
// mail framework in the mail module: log in, find or create the folder,
// look for the message by its Message-ID, append it if it is not there.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "mail/SmtpSession.h"

namespace parlova {

struct ImapRequest {
  std::string username;
  std::string password;
  // The folder as the user names it, levels split by "/"; stored with the
  // server's own separator between them.
  std::string folder;
  // Text that only this message's Message-ID holds.
  std::string messageIdKey;
  std::vector<uint8_t> message;
  double internalDate = 0; // seconds since 1970
};

struct ImapResult {
  enum class Outcome {
    Stored,
    AlreadyThere,
    Unreachable,      // no connection at all
    NotSecured,       // reached, but the connection could not be secured
    LoginRefused,
    FolderNotCreated,
    NotStored,        // the server refused the search or the append
    TimedOut,
    Stopped,          // the run was asked to stop
  };
  Outcome outcome = Outcome::Unreachable;
  // What the server or the security check said, for the refusals.
  std::string detail;
};

class ImapSession {
public:
  // Stores the message, running the current run loop until it is done;
  // `keepGoing` is asked between events. Or why the mail module could not
  // be loaded.
  static std::variant<ImapResult, std::string> store(const MailServer &server, const ImapRequest &request,
                                                     const std::function<bool()> &keepGoing);
};

using StoreByImapFunction = void (*)(const MailServer *server, const ImapRequest *request,
                                     const std::function<bool()> *keepGoing, ImapResult *result);
inline constexpr const char *kStoreByImapSymbol = "parlovaStoreByImap";

} // namespace parlova
