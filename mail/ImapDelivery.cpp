#include "mail/ImapDelivery.h"

#include "context/MailPassword.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "mail/ImapSession.h"
#include "mail/MailboxComposer.h"
#include "platform/Log.h"

namespace parlova {

namespace {

DeliveryResult unreachable() {
  logLine("Unable to connect to mail server.");
  return DeliveryResult::wait(2, "IMAP unreachable");
}

// Refused for good: the reason in the settings, the transcript archived
// all the same.
DeliveryResult notStored(int code, const std::string &reason) {
  logFormat("Could not store the mail: %@", reason);
  return DeliveryResult::refused(code, reason);
}

// A login that fails (a wrong password, a locked keyring) fails for every
// transcript alike: archived without their mail, a whole backlog would
// reach the archives and never the mailbox. They wait, as for a server
// that cannot be reached.
DeliveryResult notStoredYet(const std::string &reason) {
  logFormat("Could not store the mail: %@", reason);
  return DeliveryResult::wait(3, reason);
}

} // namespace

DeliveryResult ImapDelivery::deliver(MailContent &content) {
  if (!session_) {
    if (!settings_.server || settings_.server->empty())
      return unreachable();
    const auto server = settings_.serverFor(*settings_.server, 143, 993);
    if (const auto *why = std::get_if<std::string>(&server))
      return waitForSetting(*why);
    ImapLogin login;
    login.username = settings_.username;
    if (login.username.empty())
      return waitForSetting("IMAP needs emailUsername");
    login.folder = settings_.folder;
    if (const auto why = settings_.imapFolderProblem())
      return waitForSetting(*why);
    // Asked once a session: a command that asks a keyring is not run for
    // every chat of a backlog.
    const MailPassword password = mailPassword(appSettings());
    if (!password.failure.empty())
      return notStoredYet(password.failure);
    login.password = password.password;
    login.messageIdPrefix = MailboxMessage::kNamePrefix;
    auto opened = ImapSession::open(MailServer{std::get<MailServerSetting>(server)}, login);
    if (const auto *why = std::get_if<std::string>(&opened)) {
      logFormat("Could not load the mail module: %@", *why);
      return unreachable();
    }
    session_ = std::move(std::get<std::unique_ptr<ImapSession>>(opened));
  }
  const auto message = MailboxComposer::compose(content, settings_.to, settings_.from);
  if (!message)
    return DeliveryResult::wait();
  const ImapResult result =
      session_->store({message->name, message->message.bytes(), message->chatTime}, [] { return shouldQuit; });
  const DeliveryResult delivered = outcome(result, content);
  // A session that failed is not offered the next message: that one starts
  // over, from the settings and the password.
  if (!delivered.delivered())
    session_.reset();
  return delivered;
}

DeliveryResult ImapDelivery::outcome(const ImapResult &result, MailContent &content) {
  using Outcome = ImapResult::Outcome;
  switch (result.outcome) {
  case Outcome::Stored:
    return DeliveryResult::sent();
  case Outcome::AlreadyThere:
    logRoutine("The mail of %@ is in the IMAP folder %@ already; it is not stored again.", content.transcriptPath(),
               settings_.folder);
    return DeliveryResult::alreadyThere();
  case Outcome::Unreachable:
    return unreachable();
  case Outcome::Stopped:
    return DeliveryResult::wait();
  case Outcome::NotSecured:
    logFormat("Could not secure the connection to the mail server: %@", result.detail);
    return DeliveryResult::refused(2, result.detail);
  case Outcome::LoginRefused:
    return notStoredYet("IMAP login refused: " + result.detail);
  case Outcome::FolderNotCreated:
    return notStored(2, "IMAP folder could not be created: " + result.detail);
  case Outcome::NotStored:
    return notStored(2, "IMAP server refused the message: " + result.detail);
  case Outcome::TimedOut:
    logLine("The attempt to send email timed out.");
    return DeliveryResult::refused(2, "server not responding");
  }
  return DeliveryResult::refused(0, {});
}

} // namespace parlova
