#include "mail/MaildirDelivery.h"

#include "mail/MailboxComposer.h"
#include "mail/MaildirFolder.h"
#include "platform/Log.h"

namespace parlova {

DeliveryResult MaildirDelivery::deliver(MailContent &content) {
  const auto message = MailboxComposer::compose(content, settings_.to, settings_.from);
  if (!message)
    return DeliveryResult::wait();
  const MaildirFolder folder(settings_.maildir, settings_.folder);
  const auto result = folder.store(message->name, message->message, message->chatTime,
                                   sessions_ == MailSessions::Kept ? Durability::ByNextSync : Durability::Now);
  switch (result.outcome) {
  case MaildirFolder::Outcome::Stored:
    return DeliveryResult::sent();
  case MaildirFolder::Outcome::AlreadyThere:
    logRoutine("The mail of %@ is in %@ already; it is not stored again.", content.transcriptPath(),
              folder.folder().string());
    return DeliveryResult::alreadyThere();
  case MaildirFolder::Outcome::Failed:
    break;
  }
  const std::string reason = "Maildir not writable: " + result.reason;
  logFormat("Could not store the mail: %@", reason);
  return DeliveryResult::refused(2, reason);
}

} // namespace parlova
