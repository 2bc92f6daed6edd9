#pragma once

#include <filesystem>

namespace parlova {

// $HOME, or the password database's entry for this user when it is unset.
std::filesystem::path homeDirectory();

} // namespace parlova
