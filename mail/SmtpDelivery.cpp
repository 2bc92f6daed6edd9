#include "mail/SmtpDelivery.h"

#include <cstring>

#include "context/MailPassword.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "foundation/Unicode.h"
#include "mail/SmtpSentRecord.h"
#include "platform/Log.h"

namespace parlova {

namespace {

DeliveryResult unreachable() {
  logLine("Unable to connect to mail server.");
  return DeliveryResult::wait(2, "SMTP unreachable");
}

} // namespace

DeliveryResult SmtpDelivery::deliver(MailContent &content) {
  // Without a server or both addresses there is no one to hand the message
  // to: that is an unreachable server.
  const auto &to = settings_.to;
  const auto &from = settings_.from;
  if (!settings_.server || settings_.server->empty() || !to || to->empty() || !from || from->empty())
    return unreachable();
  // Implicit TLS has a port of its own; the plain and STARTTLS default stays 25.
  const auto chosen = settings_.serverFor(*settings_.server, 25, 465);
  if (const auto *why = std::get_if<std::string>(&chosen))
    return waitForSetting(*why);

  const auto key = content.contentKey();
  if (key && resending_ == Resending::OncePerAddress && SmtpSentRecord::read().has(*to, *key)) {
    logRoutine("%@ was sent to %@ before; it is not sent again.", content.transcriptPath(), *to);
    return DeliveryResult::alreadyThere();
  }
  MailMessage message = content.message(*to, *from);
  if (settings_.dateFromChat)
    message.date = content.chatStart();
  auto opened = SmtpSession::open(MailServer{std::get<MailServerSetting>(chosen)}, message);
  if (const auto *why = std::get_if<std::string>(&opened)) {
    logFormat("Could not load the mail module: %@", *why);
    return unreachable();
  }
  const DeliveryResult result = HandleEmailSending(*std::get<std::unique_ptr<SmtpSession>>(opened));
  if (result.kind == DeliveryResult::Kind::Sent && key && !SmtpSentRecord::add(*to, *key))
    logFormat("Could not note in %@ that %@ was sent: %@", SmtpSentRecord::file().string(), content.transcriptPath(),
              std::string(std::strerror(errno)));
  return result;
}

DeliveryResult SmtpDelivery::HandleEmailSending(SmtpSession &session) {
  session_ = &session;
  ended_.reset();
  if (verbose)
    logLine("preparing to email with pantomime");
  session.setDelegate(this);
  if (session.connect() != 0) {
    if (const auto &reason = session.securityFailure()) {
      // Reached but not secured: nothing of the user's was sent. Refused,
      // so the transcript is not held back for ever.
      logFormat("Could not secure the connection to the mail server: %@", *reason);
      return DeliveryResult::refused(2, *reason);
    }
    return unreachable();
  }
  session.scheduleTimer(1.0, [this] { emailReady(); });

  while (!ended_) {
    if (!shouldQuit)
      return DeliveryResult::wait();
    if (!session.runRunLoopOnce()) {
      logLine("Error waiting for email transmission runloop.");
      return DeliveryResult::wait(4, "runloop error");
    }
  }
  return *ended_;
}

void SmtpDelivery::emailReady() {
  if (!settings_.needsUsername) {
    session_->sendMessage();
    return;
  }
  const MailPassword password = mailPassword(appSettings());
  if (!password.failure.empty()) {
    logLine(password.failure);
    ended_ = DeliveryResult::refused(3, password.failure);
    return;
  }
  session_->authenticate(settings_.username, password.password, "LOGIN");
}

void SmtpDelivery::authenticationCompleted() { session_->sendMessage(); }

void SmtpDelivery::authenticationFailed() {
  logLine("The SMTP server rejected the username/password.");
  ended_ = DeliveryResult::refused(3, "login rejected");
}

void SmtpDelivery::messageSent() { ended_ = DeliveryResult::sent(); }

void SmtpDelivery::messageNotSent() {
  // The reply's bytes are taken as 16-bit characters in host order, a
  // trailing odd byte dropped: the settled reading, kept as it is.
  const std::vector<uint8_t> reply = session_->lastResponse();
  std::u16string units(reply.size() / 2, u'\0');
  for (size_t i = 0; i < units.size(); ++i) {
    char16_t unit;
    std::memcpy(&unit, reply.data() + 2 * i, 2);
    units[i] = unit;
  }
  const std::string text = utf16ToUtf8(units);
  logLine("An error occurred while sending email:");
  logLine(text);
  ended_ = DeliveryResult::refused(2, text);
}

void SmtpDelivery::connectionTimedOut() {
  logLine("The attempt to send email timed out.");
  ended_ = DeliveryResult::refused(2, "server not responding");
}

} // namespace parlova
