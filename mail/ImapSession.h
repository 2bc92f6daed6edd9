// A session with one folder of an IMAP mailbox, kept open for as many
// messages as a run stores: logged in and the folder found or made once,
// the messages it holds already listed once, then each message appended
// in one round trip where the server takes literals without a go-ahead.
// The session lives in the mail module, which knows TLS.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "mail/SmtpSession.h"

namespace parlova {

struct ImapLogin {
  std::string username;
  std::string password;
  // The folder as the user names it, levels split by "/"; stored with the
  // server's own separator between them.
  std::string folder;
  // What every Message-ID this program writes begins with: the folder's
  // messages that carry it are listed once a session.
  std::string messageIdPrefix;
};

struct ImapMessage {
  // Text that only this message's Message-ID holds, beginning with the
  // login's messageIdPrefix.
  std::string messageIdKey;
  std::vector<uint8_t> bytes;
  double internalDate = 0; // seconds since 1970
};

struct ImapResult {
  enum class Outcome {
    Stored,
    AlreadyThere,
    Unreachable,      // no connection at all, or it ended before the message was taken
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
  // The session, not yet connected; or why the mail module could not be
  // loaded.
  static std::variant<std::unique_ptr<ImapSession>, std::string> open(const MailServer &server,
                                                                      const ImapLogin &login);
  virtual ~ImapSession() = default;

  // Stores the message unless the folder holds it, connecting first when
  // there is no connection; a connection kept from an earlier message that
  // the server has dropped is made again once, and what the folder holds
  // listed again, so nothing is stored twice. `keepGoing` is asked while
  // the server is waited for.
  virtual ImapResult store(const ImapMessage &message, const std::function<bool()> &keepGoing) = 0;
};

using OpenImapSessionFunction = ImapSession *(*)(const MailServer *server, const ImapLogin *login);
inline constexpr const char *kOpenImapSessionSymbol = "parlovaOpenImapSession";

} // namespace parlova
