// The transcript email's subject.
#include <ctime>

#include "context/Settings.h"
#include "model/ICLPChatLog.h"

namespace parlova {

std::string ICLPChatLog::subjectForEmail() {
  Preferences &settings = appSettings();
  const bool unique = settings.boolValue("forceUniqueSubjects");
  const int32_t subjectNumber = settings.intValue("subjectNumber");
  if (!unique)
    return plainSubjectForEmail();
  // The counter is kept for the settings pane; it does not appear in the
  // subject.
  settings.setAppValue("subjectNumber", PreferenceValue::integer(static_cast<int64_t>(subjectNumber) + 1));
  settings.appSynchronize();
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char date[128];
  const size_t length = std::strftime(date, sizeof date, "%c", &local);
  return "[IM] " + primaryOtherParty_ + " (" + std::string(date, length) + ")";
}

} // namespace parlova
