// Whether the chat of an entry of the walk is over, as every run judges it
// before loading the entry.
#pragma once

#include <chrono>
#include <string>

namespace parlova {

// The settings read afresh, iChat asked whether it runs and, if so,
// whether the entry's chat window is still open. Sets iChatRunning and
// isLikelyComplete. A catch-up, which judges thousands of entries a minute,
// may take whether iChat runs from a look at the processes up to
// `reuseFor` old.
void judgeEntry(const std::string &entry, std::chrono::milliseconds reuseFor = {});

} // namespace parlova
