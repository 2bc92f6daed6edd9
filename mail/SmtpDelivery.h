// The transcript email handed to an SMTP server: one session, its events
// taken from the run loop until the message is sent or the exchange ends.
#pragma once

#include <optional>

#include "mail/Delivery.h"
#include "mail/SmtpSession.h"

namespace parlova {

class SmtpDelivery final : public Delivery, private SmtpSessionDelegate {
public:
  SmtpDelivery(MailSettings settings, Resending resending)
      : settings_(std::move(settings)), resending_(resending) {}
  DeliveryResult deliver(MailContent &content) override;

private:
  // The exchange on an open session, with its one-second wait before the
  // login or the message.
  DeliveryResult HandleEmailSending(SmtpSession &session);
  void emailReady();
  void authenticationCompleted() override;
  void authenticationFailed() override;
  void messageSent() override;
  void messageNotSent() override;
  void connectionTimedOut() override;

  MailSettings settings_;
  Resending resending_;
  SmtpSession *session_ = nullptr;
  // Set once the exchange has ended, well or badly.
  std::optional<DeliveryResult> ended_;
};

} // namespace parlova
