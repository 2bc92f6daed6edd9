#include "mail/Delivery.h"

#include "mail/ImapDelivery.h"
#include "mail/MaildirDelivery.h"
#include "mail/SmtpDelivery.h"
#include "platform/Log.h"

namespace parlova {

std::unique_ptr<Delivery> Delivery::chosen(const MailSettings &settings) {
  switch (settings.delivery.value_or(DeliveryKind::Smtp)) {
  case DeliveryKind::Smtp:
    return std::make_unique<SmtpDelivery>(settings);
  case DeliveryKind::Imap:
    return std::make_unique<ImapDelivery>(settings);
  case DeliveryKind::Maildir:
    return std::make_unique<MaildirDelivery>(settings);
  }
  return nullptr;
}

DeliveryResult waitForSetting(const std::string &reason) {
  logFormat("Unable to connect to mail server: %@.", reason);
  return DeliveryResult::wait(2, reason);
}

} // namespace parlova
