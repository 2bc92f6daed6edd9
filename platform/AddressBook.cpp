#include "platform/AddressBook.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "platform/FileManager.h"
#include "platform/Home.h"
#include "platform/VCard.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

std::string lower(std::string_view text) {
  std::string out(text);
  for (char &c : out)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::optional<std::string> nonEmpty(const std::vector<std::string> &parts, size_t index) {
  if (index < parts.size() && !parts[index].empty())
    return parts[index];
  return std::nullopt;
}

ContactCard cardFrom(const VCard &vcard) {
  ContactCard card;
  if (const auto *n = vcard.first("N")) {
    card.lastName = nonEmpty(n->components, 0);
    card.firstName = nonEmpty(n->components, 1);
  }
  std::optional<size_t> preferred;
  for (const auto &property : vcard.properties) {
    std::string handle;
    if (property.name == "X-AIM") {
      handle = property.value;
    } else if (property.name == "IMPP" && lower(property.value).rfind("aim:", 0) == 0) {
      handle = property.value.substr(4);
      if (handle.rfind("//", 0) == 0)
        handle.erase(0, 2);
    } else if (property.name == "X-PARLOVA-ME") {
      const std::string value = lower(property.value);
      card.isMe = !(value == "0" || value == "false" || value == "no");
      continue;
    } else {
      continue;
    }
    if (handle.empty())
      continue;
    if (property.isPreferred() && !preferred)
      preferred = card.aimHandles.size();
    card.aimHandles.push_back(handle);
  }
  card.primaryAIMIndex = preferred.value_or(0);
  return card;
}

} // namespace

std::optional<std::string> ContactCard::primaryAIMHandle() const {
  if (primaryAIMIndex < aimHandles.size())
    return aimHandles[primaryAIMIndex];
  return std::nullopt;
}

fs::path AddressBook::defaultLocation() {
  if (const char *configured = std::getenv("PARLOVA_CONTACTS"); configured && *configured)
    return configured;
  return homeDirectory() / ".local" / "share" / "contacts";
}

AddressBook AddressBook::load(const fs::path &location) {
  std::vector<fs::path> files;
  std::error_code error;
  if (fs::is_directory(location, error)) {
    for (auto it = fs::recursive_directory_iterator(location, fs::directory_options::skip_permission_denied, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error))
      if (lower(it->path().extension().string()) == ".vcf" && it->is_regular_file(error))
        files.push_back(it->path());
    std::sort(files.begin(), files.end());
  } else {
    files.push_back(location);
  }
  AddressBook book;
  for (const auto &file : files) {
    const auto bytes = readFileContents(file);
    if (!bytes)
      continue;
    for (const VCard &vcard : parseVCards(std::string_view(reinterpret_cast<const char *>(bytes->data()), bytes->size())))
      book.cards_.push_back(cardFrom(vcard));
  }
  return book;
}

const AddressBook &AddressBook::shared() {
  static const AddressBook book = load(defaultLocation());
  return book;
}

const ContactCard *AddressBook::me() const {
  for (const auto &card : cards_)
    if (card.isMe)
      return &card;
  return nullptr;
}

std::vector<const ContactCard *> AddressBook::cardsWithAIMHandle(std::string_view handle) const {
  std::vector<const ContactCard *> found;
  for (const auto &card : cards_)
    if (std::find(card.aimHandles.begin(), card.aimHandles.end(), handle) != card.aimHandles.end())
      found.push_back(&card);
  return found;
}

} // namespace parlova
