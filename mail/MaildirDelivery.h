// The transcript email stored straight into a folder of a local Maildir:
// on the disk before the call returns for a single run, by the next
// DeferredSyncs::flushAll() for a backlog.
#pragma once

#include "mail/Delivery.h"

namespace parlova {

class MaildirDelivery final : public Delivery {
public:
  MaildirDelivery(MailSettings settings, MailSessions sessions)
      : settings_(std::move(settings)), sessions_(sessions) {}
  DeliveryResult deliver(MailContent &content) override;

private:
  MailSettings settings_;
  MailSessions sessions_;
};

} // namespace parlova
