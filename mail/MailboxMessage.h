// The transcript email as a mailbox stores it: the message the SMTP path
// sends, dated by the chat's first message and named after the transcript's
// contents, so that storing it again (a run that died before the move)
// stores nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mail/FramedMessage.h"
#include "mail/MailContent.h"

namespace parlova {

struct MailboxMessage {
  // What every name begins with.
  static constexpr const char *kNamePrefix = "parlova.";

  std::string name; // unique to the transcript's contents, ASCII
  FramedMessage message;
  double chatTime = 0; // seconds since 1970

  // Nothing when it cannot be made; that is logged.
  static std::optional<MailboxMessage> compose(MailContent &content, const std::optional<std::string> &to,
                                               const std::optional<std::string> &from);
};

} // namespace parlova
