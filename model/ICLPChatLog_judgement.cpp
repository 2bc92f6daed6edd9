// Error reporting and the end-of-chat judgement of a chat log.
#include "context/OpenChatScript.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "model/ICLPChatLog.h"
#include "platform/AppleScript.h"
#include "platform/Beep.h"
#include "platform/Log.h"

namespace parlova {

void ICLPChatLog::reportErrorAndLog(int code, const std::string &text) {
  Preferences &settings = appSettings();
  settings.appSynchronize();
  // The count is written back as it was read: nothing here increases it.
  // That is the settled behaviour.
  const int32_t emailFails = settings.intValue("emailFails");
  settings.setAppValue("emailFails", PreferenceValue::integer(emailFails));
  settings.appSynchronize();
  settings.setAppValue("reportThis", PreferenceValue::string(text));
  settings.appSynchronize();
  if (emailFails != 3)
    return;
  settings.setAppValue("errorStatus", PreferenceValue::integer(code));
  settings.appSynchronize();
  beep();
  // Blocks until the user dismisses the dialog; a failure is ignored.
  AppleScript("tell application \"System Events\" to display dialog \"Parlova has encountered an error. Please go "
              "to the Parlova preferences pane for more information.\" buttons {\"OK\"}")
      .executeAndReturnError();
}

bool ICLPChatLog::isLikelyEndOfChat() const {
  if (!iChatRunning)
    return true;
  if (NumberOfSpeakers() > 2) {
    logLine("multiparty chat, checking documents");
    const auto answer = AppleScript("tell application \"iChat\" to get the number of documents").executeAndReturnError();
    const auto documents = answer ? answer->int32Value() : std::nullopt;
    return documents.has_value() && *documents == 0;
  }
  const auto open = isChatWindowOpen(primaryOtherParty_);
  return open.has_value() && !*open;
}

} // namespace parlova
