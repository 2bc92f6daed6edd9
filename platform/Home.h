#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>

namespace parlova {

// $HOME, or the password database's entry for this user when it is unset.
std::filesystem::path homeDirectory();

// The account name of `uid`, or "uid N" when it has none.
std::string userName(uid_t uid);

} // namespace parlova
