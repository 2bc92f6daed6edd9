// Process-wide flags of a run, set by the run driver and read elsewhere.
#pragma once

namespace parlova {

// Debug logging: the setting debugMode is 2.
extern bool verbose;
// True for the whole run: the email wait keeps waiting while it holds.
extern bool shouldQuit;
// iChat is among the running applications (judged per entry).
extern bool iChatRunning;
// The current entry's conversation is judged finished.
extern bool isLikelyComplete;

} // namespace parlova
