#include "mail/ImapDelivery.h"

#include "context/MailPassword.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "mail/ImapSession.h"
#include "mail/MailboxMessage.h"
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
  if (!settings_.server || settings_.server->empty())
    return unreachable();
  const auto server = settings_.serverFor(*settings_.server, 143, 993);
  if (const auto *why = std::get_if<std::string>(&server))
    return waitForSetting(*why);
  ImapRequest request;
  request.username = settings_.username;
  if (request.username.empty())
    return waitForSetting("IMAP needs emailUsername");
  request.folder = settings_.folder;
  if (const auto why = settings_.imapFolderProblem())
    return waitForSetting(*why);
  const MailPassword password = mailPassword(appSettings());
  if (!password.failure.empty())
    return notStoredYet(password.failure);
  request.password = password.password;
  const auto message = MailboxMessage::compose(content, settings_.to, settings_.from);
  if (!message)
    return DeliveryResult::wait();
  request.messageIdKey = message->name;
  request.message = message->bytes;
  request.internalDate = message->chatTime;

  const auto stored = ImapSession::store(MailServer{std::get<MailServerSetting>(server)}, request,
                                         [] { return shouldQuit; });
  if (const auto *why = std::get_if<std::string>(&stored)) {
    logFormat("Could not load the mail module: %@", *why);
    return unreachable();
  }
  const ImapResult &result = std::get<ImapResult>(stored);
  using Outcome = ImapResult::Outcome;
  switch (result.outcome) {
  case Outcome::Stored:
    return DeliveryResult::sent();
  case Outcome::AlreadyThere:
    logRoutine("The mail of %@ is in the IMAP folder %@ already; it is not stored again.", content.transcriptPath(),
              request.folder);
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
