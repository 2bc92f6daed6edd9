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

std::string userName(uid_t uid) {
  if (const passwd *entry = getpwuid(uid); entry && entry->pw_name)
    return entry->pw_name;
  return "uid " + std::to_string(uid);
}

} // namespace parlova
