#include "context/ErrorReport.h"

#include "context/Settings.h"
#include "platform/AppleScript.h"
#include "platform/Beep.h"

namespace parlova {

void reportErrorAndLog(int code, const std::string &text) {
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

} // namespace parlova
