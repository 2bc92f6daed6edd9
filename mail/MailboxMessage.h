// The transcript email as a mailbox stores it: the message the SMTP path
// sends, dated by the chat's first message and named after the transcript's
// contents, so that storing it again (a run that died before the move)
// stores nothing. MailboxComposer makes it.
#pragma once

#include <string>

#include "mail/FramedMessage.h"

namespace parlova {

struct MailboxMessage {
  // What every name begins with.
  static constexpr const char *kNamePrefix = "parlova.";

  std::string name; // unique to the transcript's contents, ASCII
  FramedMessage message;
  double chatTime = 0; // seconds since 1970
};

} // namespace parlova
