#include "platform/Home.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace parlova {

std::filesystem::path homeDirectory() {
  if (const char *home = std::getenv("HOME"); home && *home)
    return home;
  if (const passwd *entry = getpwuid(getuid()); entry && entry->pw_dir)
    return entry->pw_dir;
  return "/";
}

} // namespace parlova
