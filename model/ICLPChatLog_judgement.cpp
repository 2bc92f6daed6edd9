// The end-of-chat judgement of a chat log.
#include "context/OpenChatScript.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "model/ICLPChatLog.h"
#include "platform/AppleScript.h"
#include "platform/Log.h"

namespace parlova {

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
