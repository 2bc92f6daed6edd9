// One log line per event on stderr, in the system log's shape:
// "<date> <time> parlova[<pid>] <text>".
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace parlova {

void logLine(std::string_view text);

// A line of status kept below the log on a terminal (a catch-up's
// progress): each log line is written above it and it is drawn again after.
// Empty: none. The caller decides whether stderr is a terminal.
void setStatusLine(std::string text);

// Fills each "%@" of `format` with the next argument, so that the program's
// messages can be written in the code exactly as they read.
std::string formatText(std::string_view format, const std::vector<std::string> &arguments);

template <class... Args> void logFormat(std::string_view format, const Args &...arguments) {
  logLine(formatText(format, {std::string(arguments)...}));
}

// The lines every transcript writes on its way ("extracting ...",
// "preparing to move ..."): shown unless a catch-up on a terminal hides
// them behind its progress line.
void showRoutineLines(bool shown);
bool routineLinesShown();
template <class... Args> void logRoutine(std::string_view format, const Args &...arguments) {
  if (routineLinesShown())
    logFormat(format, arguments...);
}

} // namespace parlova
