#include "platform/RunningApplications.h"

#include <cctype>
#include <filesystem>
#include <fstream>

namespace parlova {

std::vector<ApplicationInfo> launchedApplications() {
  std::vector<ApplicationInfo> applications;
  std::error_code error;
  for (std::filesystem::directory_iterator it("/proc", error), end; !error && it != end; it.increment(error)) {
    const std::string pid = it->path().filename().string();
    if (pid.empty() || !std::isdigit(static_cast<unsigned char>(pid.front())))
      continue;
    std::ifstream comm(it->path() / "comm");
    std::string name;
    // A process may end between the listing and the read.
    if (!std::getline(comm, name))
      continue;
    applications.push_back({{"NSApplicationName", name}, {"NSApplicationProcessIdentifier", pid}});
  }
  return applications;
}

} // namespace parlova
