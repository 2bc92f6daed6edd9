// The transcript email appended to a folder of an IMAP mailbox, found there
// by its Message-ID first so that it is stored once. One session serves
// every message the delivery carries, opened with the first of them.
#pragma once

#include <memory>

#include "mail/Delivery.h"
#include "mail/ImapSession.h"

namespace parlova {

class ImapDelivery final : public Delivery {
public:
  explicit ImapDelivery(MailSettings settings) : settings_(std::move(settings)) {}
  DeliveryResult deliver(MailContent &content) override;

private:
  DeliveryResult outcome(const ImapResult &result, MailContent &content);

  MailSettings settings_;
  std::unique_ptr<ImapSession> session_;
};

} // namespace parlova
