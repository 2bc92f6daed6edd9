#include "context/OpenChatScript.h"

#include <cstring>

#include "platform/AppleScript.h"
#include "platform/Log.h"

namespace parlova {

std::string openChatScript(std::string_view buddyName) {
  std::string escaped;
  for (const char c : buddyName) {
    if (c == '"')
      escaped += '\\';
    escaped += c;
  }
  static constexpr std::string_view kScript =
      "tell application \"iChat\"\n"
      " copy documents to foo\n"
      "\trepeat with i from 1 to number of items in foo\n"
      " if name of item i of foo is \"Chatting with %@ et al.\" or name of item i of foo is \"Instant "
      "Messages with %@\" or name of item i of foo is \"Chatting with %@\" or name of item i of foo is \"Chat "
      "with %@\" then \n"
      " return yes\n"
      "end if\n"
      "end repeat\n"
      "return no\n"
      "end tell";
  return formatText(kScript, {escaped, escaped, escaped, escaped});
}

std::optional<bool> isChatWindowOpen(std::string_view buddyName) {
  const AppleScript script(openChatScript(buddyName));
  const auto answer = script.executeAndReturnError();
  if (!answer)
    return std::nullopt;
  const auto code = answer->fourCharCodeInBigEndian();
  if (!code)
    return std::nullopt;
  // The code is in big-endian order now, so its first byte in memory is the
  // code's first character.
  char first = 0;
  std::memcpy(&first, &*code, 1);
  return first != 'n';
}

} // namespace parlova
