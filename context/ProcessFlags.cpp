#include "context/ProcessFlags.h"

namespace parlova {

bool verbose = false;
bool shouldQuit = false;
bool iChatRunning = false;
bool isLikelyComplete = false;

} // namespace parlova
