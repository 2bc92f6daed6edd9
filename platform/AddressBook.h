// The user's contact cards: a vCard file, or a folder of them (as khard and
// vdirsyncer keep them), at $PARLOVA_CONTACTS or ~/.local/share/contacts.
// The user's own card carries the line "X-PARLOVA-ME:TRUE".
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace parlova {

struct ContactCard {
  std::optional<std::string> firstName;
  std::optional<std::string> lastName;
  std::vector<std::string> aimHandles; // from X-AIM and IMPP:aim: lines
  size_t primaryAIMIndex = 0;          // the preferred handle, else the first
  bool isMe = false;

  std::optional<std::string> primaryAIMHandle() const;
};

class AddressBook {
public:
  static std::filesystem::path defaultLocation();
  // Cards in a stable order: files by path, then cards as they stand.
  static AddressBook load(const std::filesystem::path &location);
  // The default book, read once per run.
  static const AddressBook &shared();

  const ContactCard *me() const;
  // The cards with an AIM handle exactly equal to `handle`, in book order.
  std::vector<const ContactCard *> cardsWithAIMHandle(std::string_view handle) const;

private:
  std::vector<ContactCard> cards_;
};

} // namespace parlova
