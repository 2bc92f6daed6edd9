// The applications the user is running, as the workspace lists them.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace parlova {

// Each entry is a dictionary with at least "NSApplicationName": the command
// name of a running process.
using ApplicationInfo = std::map<std::string, std::string>;

std::vector<ApplicationInfo> launchedApplications();

} // namespace parlova
