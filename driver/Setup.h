// parlova --setup: what a user needs before the first run, put into their
// home folder, never replacing what is there.
#pragma once

#include <filesystem>
#include <optional>

namespace parlova {

// Copies the shipped templates, word lists and icon into ~/Library/Parlova
// where missing, makes the two transcript folders, and prints what was
// done and the next steps. 0, or 1 when the shipped files are nowhere.
int setUp();

// Where the shipped files are: beside an installed program
// (<prefix>/share/parlova), where this build installs them, or the source
// tree's for a program run from its build folder.
std::optional<std::filesystem::path> shippedFilesFolder();

// For a catch-up: one log line when ~/Library/Parlova holds none of the
// page templates, saying which command puts them there.
void noteMissingTemplates();

} // namespace parlova
