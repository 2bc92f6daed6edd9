#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>

namespace parlova {

// $HOME, or the password database's entry for this user when it is unset.
std::filesystem::path homeDirectory();

// The account name of `uid`, or "uid N" when it has none.
std::string userName(uid_t uid);

// Why a tool must not write in the home folder when another user owns it
// (root, through sudo, with the user's HOME, would leave files the user's
// own runs cannot use): "the home folder /home/alice belongs to alice, not
// to root, who runs this", with the owner's name; nothing when it is ours
// or cannot be looked at.
struct ForeignHome {
  std::string why;
  std::string owner;
};
std::optional<ForeignHome> homeOfAnotherUser();

} // namespace parlova
