// The password the mail server is logged in with, wherever the user keeps
// it: in the settings, or printed by a command of theirs.
#pragma once

#include <string>

#include "platform/Preferences.h"

namespace parlova {

struct MailPassword {
  std::string password;
  std::string failure; // why emailPasswordCommand gave none; empty when fine
};

// emailPasswordCommand's first line when that is set (it wins), else
// emailPassword. What the command printed is never shown anywhere.
MailPassword mailPassword(Preferences &settings);

} // namespace parlova
