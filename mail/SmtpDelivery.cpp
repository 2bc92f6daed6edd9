#include "mail/SmtpDelivery.h"

#include <cstring>
#include <thread>

#include "context/MailPassword.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "foundation/Unicode.h"
#include "mail/SmtpSentRecord.h"
#include "platform/Log.h"
#include "platform/StopSignals.h"

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
  waitForPace();
  std::optional<DeliveryResult> result;
  if (kept_)
    result = sendOnKeptSession(message);
  if (!result) {
    kept_.reset();
    result = sendOnNewSession(MailServer{std::get<MailServerSetting>(chosen)}, message);
  }
  lastHandedOver_ = std::chrono::steady_clock::now();
  if (result->kind != DeliveryResult::Kind::Sent)
    kept_.reset();
  if (result->kind == DeliveryResult::Kind::Sent && key && !SmtpSentRecord::add(*to, *key))
    logFormat("Could not note in %@ that %@ was sent: %@", SmtpSentRecord::file().string(), content.transcriptPath(),
              std::string(std::strerror(errno)));
  return *result;
}

void SmtpDelivery::waitForPace() {
  if (sessions_ != MailSessions::Kept || settings_.messagesPerMinute <= 0 || !lastHandedOver_)
    return;
  const auto next = *lastHandedOver_ + std::chrono::microseconds(60'000'000 / settings_.messagesPerMinute);
  while (std::chrono::steady_clock::now() < next && !StopSignals::requested())
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
        std::chrono::milliseconds(100), next - std::chrono::steady_clock::now()));
}

DeliveryResult SmtpDelivery::sendOnNewSession(const MailServer &server, const MailMessage &message) {
  auto opened = SmtpSession::open(server, message);
  if (const auto *why = std::get_if<std::string>(&opened)) {
    logFormat("Could not load the mail module: %@", *why);
    return unreachable();
  }
  auto session = std::move(std::get<std::unique_ptr<SmtpSession>>(opened));
  const DeliveryResult result = HandleEmailSending(*session);
  if (sessions_ == MailSessions::Kept && result.kind == DeliveryResult::Kind::Sent)
    kept_ = std::move(session);
  return result;
}

std::optional<DeliveryResult> SmtpDelivery::sendOnKeptSession(const MailMessage &message) {
  auto ready = SmtpSession::prepared(message);
  if (const auto *why = std::get_if<std::string>(&ready)) {
    logFormat("Could not load the mail module: %@", *why);
    return unreachable();
  }
  session_ = kept_.get();
  ended_.reset();
  resetting_ = true;
  kept_->resetFor(std::get<MailMessage>(ready));
  const DeliveryResult result = runUntilEnded(*kept_);
  if (!shouldQuit || !resetting_)
    return result;
  // The reset was not answered: the server let the connection go while
  // the last transcript was archived.
  return std::nullopt;
}

DeliveryResult SmtpDelivery::HandleEmailSending(SmtpSession &session) {
  session_ = &session;
  ended_.reset();
  greeted_ = false;
  resetting_ = false;
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
  // A backlog goes on as soon as the server has greeted.
  if (sessions_ == MailSessions::OnePerMessage)
    session.scheduleTimer(1.0, [this] { emailReady(); });
  return runUntilEnded(session);
}

DeliveryResult SmtpDelivery::runUntilEnded(SmtpSession &session) {
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

void SmtpDelivery::serviceInitialized() {
  if (sessions_ != MailSessions::Kept || greeted_)
    return;
  greeted_ = true;
  emailReady();
}

void SmtpDelivery::transactionResetCompleted() {
  resetting_ = false;
  session_->sendMessage();
}

void SmtpDelivery::transactionResetFailed() { ended_ = DeliveryResult::wait(); }

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
  if (resetting_) {
    ended_ = DeliveryResult::wait();
    return;
  }
  logLine("The attempt to send email timed out.");
  ended_ = DeliveryResult::refused(2, "server not responding");
}

} // namespace parlova
