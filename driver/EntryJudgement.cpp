#include "driver/EntryJudgement.h"

#include <optional>

#include "context/OpenChatScript.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "platform/Log.h"
#include "platform/RunningApplications.h"

namespace parlova {

namespace {

bool isIChatRunning() {
  const auto applications = launchedApplications();
  if (applications.empty()) {
    logLine("An error occurred while communicating with iChat. (1)");
    return false;
  }
  for (const ApplicationInfo &application : applications) {
    const auto name = application.find("NSApplicationName");
    if (name != application.end() && name->second == "iChat")
      return true;
  }
  return false;
}

// With iChat running, a conversation is over once iChat says it has no
// window open with the buddy the entry's name gives. No answer at all
// counts as still open, so a live chat is never archived.
bool isConversationOver(const std::string &entry) {
  const auto on = entry.rfind(" on ");
  if (on == std::string::npos)
    return false;
  const auto open = isChatWindowOpen(entry.substr(0, on));
  return open.has_value() && !*open;
}

} // namespace

void judgeEntry(const std::string &entry, std::chrono::milliseconds reuseFor) {
  Preferences &settings = appSettings();
  settings.appSynchronize();
  [[maybe_unused]] const auto emailAddress = settings.stringValue("emailAddress");

  static std::optional<std::chrono::steady_clock::time_point> lookedAt;
  const auto now = std::chrono::steady_clock::now();
  if (!lookedAt || now - *lookedAt > reuseFor) {
    iChatRunning = isIChatRunning();
    lookedAt = now;
  }
  isLikelyComplete = iChatRunning ? isConversationOver(entry) : true;
}

} // namespace parlova
