// The transcript email appended to a folder of an IMAP mailbox, found there
// by its Message-ID first so that it is stored once.
#pragma once

#include "mail/Delivery.h"

namespace parlova {

class ImapDelivery final : public Delivery {
public:
  explicit ImapDelivery(MailSettings settings) : settings_(std::move(settings)) {}
  DeliveryResult deliver(MailContent &content) override;

private:
  MailSettings settings_;
};

} // namespace parlova
