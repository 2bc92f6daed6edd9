#include "platform/SafeFileName.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>

namespace parlova {

namespace {

// The longest file name the common Linux file systems take, in bytes.
constexpr size_t kNameMax = 255;

uint32_t fnv1a(std::string_view text) {
  uint32_t hash = 2166136261u;
  for (const unsigned char c : text) {
    hash ^= c;
    hash *= 16777619u;
  }
  return hash;
}

} // namespace

namespace {

// `stem` cut to leave room for `suffix` and the tag, then the tag: "~" and
// eight hex digits made from the whole original name.
std::string tagged(std::string stem, std::string_view name, std::string_view suffix) {
  char tag[16];
  std::snprintf(tag, sizeof tag, "~%08x", fnv1a(name));
  const size_t room = kNameMax > suffix.size() + 9 ? kNameMax - suffix.size() - 9 : 1;
  size_t cut = std::min(room, stem.size());
  // Never split a UTF-8 sequence: step back over continuation bytes.
  while (cut > 0 && cut < stem.size() && (static_cast<unsigned char>(stem[cut]) & 0xC0) == 0x80)
    --cut;
  stem.resize(cut);
  return stem + tag;
}

bool endsInTag(std::string_view stem) {
  if (stem.size() < 9 || stem[stem.size() - 9] != '~')
    return false;
  for (const char c : stem.substr(stem.size() - 8))
    if (!std::isdigit(static_cast<unsigned char>(c)) && (c < 'a' || c > 'f'))
      return false;
  return true;
}

} // namespace

namespace {

// Every rule but the one for length.
std::string cleanedStem(std::string_view name, std::string_view suffix, std::span<const std::string_view> reserved) {
  std::string stem;
  stem.reserve(name.size());
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    stem += (c == '/' || byte < 0x20 || byte == 0x7F) ? '_' : c;
  }
  if (stem.empty())
    stem = "_";
  if (stem.front() == '.')
    stem.front() = '_';
  for (const std::string_view taken : reserved)
    if (stem + std::string(suffix) == taken) {
      stem.insert(0, "_");
      break;
    }
  return stem;
}

} // namespace

std::string safeFileStem(std::string_view name, std::string_view suffix,
                         std::span<const std::string_view> reserved) {
  std::string stem = cleanedStem(name, suffix, reserved);
  if (stem.size() + suffix.size() > kNameMax)
    return tagged(std::move(stem), name, suffix);
  return stem;
}

std::string distinctFileStem(std::string_view name, std::string_view suffix,
                             std::span<const std::string_view> reserved) {
  std::string stem = cleanedStem(name, suffix, reserved);
  if (stem == name && !endsInTag(stem) && stem.size() + suffix.size() <= kNameMax)
    return stem;
  return tagged(std::move(stem), name, suffix);
}

} // namespace parlova
