// The transcript email stored straight into a folder of a local Maildir.
#pragma once

#include "mail/Delivery.h"

namespace parlova {

class MaildirDelivery final : public Delivery {
public:
  explicit MaildirDelivery(MailSettings settings) : settings_(std::move(settings)) {}
  DeliveryResult deliver(MailContent &content) override;

private:
  MailSettings settings_;
};

} // namespace parlova
