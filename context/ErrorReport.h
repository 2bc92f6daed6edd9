// The error the settings pane shows: what went wrong with the mail or the
// archives, and, once it stands, the code that stops every later run.
#pragma once

#include <string>

namespace parlova {

// Records an email or archive error in the settings for the settings pane;
// at a standing failure count of exactly 3 also makes it the standing error
// (errorStatus), beeps and sends the user to the pane.
void reportErrorAndLog(int code, const std::string &text);

} // namespace parlova
