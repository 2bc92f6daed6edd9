// Makes a transcript's mailbox message (MailboxMessage) from what the
// delivery asks of the transcript.
#pragma once

#include <optional>
#include <string>
#include <variant>

#include "mail/MailContent.h"
#include "mail/MailboxMessage.h"

namespace parlova {

class MailboxComposer {
public:
  // The message composed beforehand when the content has one, else made
  // now; nothing when it cannot be made, which is
  // logged.
  static std::optional<MailboxMessage> compose(MailContent &content, const std::optional<std::string> &to,
                                               const std::optional<std::string> &from);
  // Made afresh, logging nothing: the message or the line that says why
  // there is none. For a thread other than the main one.
  static std::variant<MailboxMessage, std::string> make(MailContent &content, const std::optional<std::string> &to,
                                                        const std::optional<std::string> &from);
};

} // namespace parlova
