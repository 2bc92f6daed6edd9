#include "context/MailPassword.h"

#include <chrono>

#include "platform/ChildProcess.h"

namespace parlova {

MailPassword mailPassword(Preferences &settings) {
  const auto command = settings.stringValue("emailPasswordCommand");
  if (!command || command->empty())
    return {settings.stringValue("emailPassword").value_or(""), {}};
  const ChildOutcome outcome = runChildProcess({"/bin/sh", "-c", *command}, "", std::chrono::seconds(120));
  std::string password = outcome.output.substr(0, outcome.output.find('\n'));
  if (!password.empty() && password.back() == '\r')
    password.pop_back();
  std::string failure = outcome.failure();
  if (failure.empty() && password.empty())
    failure = "it printed no password";
  if (!failure.empty())
    return {{}, "emailPasswordCommand failed: " + failure};
  return {password, {}};
}

} // namespace parlova
