// The transcript as a delivery sees it.
#pragma once

#include <optional>
#include <string>

#include "mail/MailboxMessage.h"
#include "mail/SmtpSession.h"

namespace parlova {

// What a delivery asks of the transcript it carries, when it needs it: the
// message is only composed once a server or a folder is ready for it, and
// composing it may count a subject number.
class MailContent {
public:
  virtual ~MailContent() = default;
  virtual const std::string &transcriptPath() const = 0;
  // Text that only this transcript's contents give, for the names a mailbox
  // knows its messages by; nothing when the transcript cannot be read.
  virtual std::optional<std::string> contentKey() const = 0;
  // When the chat began (seconds since 1970); nothing without a dated message.
  virtual std::optional<double> chatStart() const = 0;
  // The subject and both renderings, addressed.
  virtual MailMessage message(const std::string &to, const std::string &from) = 0;
  // The mailbox's message when it was composed beforehand, with the
  // addresses of the delivery that asks (a catch-up composes the next
  // transcript's while it carries this one); given once.
  virtual std::optional<MailboxMessage> takeComposed() { return std::nullopt; }
};

} // namespace parlova
