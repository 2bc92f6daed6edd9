// The transcript email handed to an SMTP server, its events taken from the
// run loop until the message is sent or the exchange ends. A single run
// opens a session for its message and waits its one second first; a
// backlog keeps the session for the next message (RSET between), paced
// only by emailMessagesPerMinute.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "mail/Delivery.h"
#include "mail/SmtpSession.h"

namespace parlova {

class SmtpDelivery final : public Delivery, private SmtpSessionDelegate {
public:
  SmtpDelivery(MailSettings settings, Resending resending, MailSessions sessions)
      : settings_(std::move(settings)), resending_(resending), sessions_(sessions) {}
  DeliveryResult deliver(MailContent &content) override;

private:
  DeliveryResult sendOnNewSession(const MailServer &server, const MailMessage &message);
  // The message on the session kept from the last one; nothing when that
  // session is gone (the server dropped it) and a new one is to be opened.
  std::optional<DeliveryResult> sendOnKeptSession(const MailMessage &message);
  // The exchange on an open session, with its one-second wait before the
  // login or the message when each message has a session of its own.
  DeliveryResult HandleEmailSending(SmtpSession &session);
  DeliveryResult runUntilEnded(SmtpSession &session);
  void waitForPace();
  void emailReady();
  void authenticationCompleted() override;
  void authenticationFailed() override;
  void messageSent() override;
  void messageNotSent() override;
  void connectionTimedOut() override;
  void serviceInitialized() override;
  void transactionResetCompleted() override;
  void transactionResetFailed() override;

  MailSettings settings_;
  Resending resending_;
  MailSessions sessions_;
  SmtpSession *session_ = nullptr;
  std::unique_ptr<SmtpSession> kept_;
  std::optional<std::chrono::steady_clock::time_point> lastHandedOver_;
  bool greeted_ = false;
  bool resetting_ = false;
  bool resetRefused_ = false;
  // Set once the exchange has ended, well or badly.
  std::optional<DeliveryResult> ended_;
};

} // namespace parlova
