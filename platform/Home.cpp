#include "platform/Home.h"

#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
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

std::optional<ForeignHome> homeOfAnotherUser() {
  const std::filesystem::path home = homeDirectory();
  struct stat status {};
  if (stat(home.c_str(), &status) != 0 || status.st_uid == geteuid())
    return std::nullopt;
  const std::string owner = userName(status.st_uid);
  return ForeignHome{"the home folder " + home.string() + " belongs to " + owner + ", not to " +
                         userName(geteuid()) + ", who runs this",
                     owner};
}

} // namespace parlova
