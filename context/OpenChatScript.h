// Asks iChat whether a chat window with a buddy is still open.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace parlova {

// The script text for `buddyName`, with its double quotes escaped.
std::string openChatScript(std::string_view buddyName);

// True when iChat answers that such a window is open, false when it
// answers that none is, nothing when no answer comes.
std::optional<bool> isChatWindowOpen(std::string_view buddyName);

} // namespace parlova
