#include "mail/ChosenDelivery.h"

#include "mail/ImapDelivery.h"
#include "mail/MaildirDelivery.h"
#include "mail/SmtpDelivery.h"

namespace parlova {

std::unique_ptr<Delivery> chosenDelivery(const MailSettings &settings, Resending resending, MailSessions sessions) {
  switch (settings.delivery.value_or(DeliveryKind::Smtp)) {
  case DeliveryKind::Smtp:
    return std::make_unique<SmtpDelivery>(settings, resending, sessions);
  case DeliveryKind::Imap:
    return std::make_unique<ImapDelivery>(settings);
  case DeliveryKind::Maildir:
    return std::make_unique<MaildirDelivery>(settings, sessions);
  }
  return nullptr;
}

} // namespace parlova
