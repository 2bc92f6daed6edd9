#include "platform/SafeFileName.h"

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

std::string safeFileStem(std::string_view name, std::string_view suffix,
                         std::span<const std::string_view> reserved) {
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
  if (stem.size() + suffix.size() > kNameMax) {
    char tag[16];
    std::snprintf(tag, sizeof tag, "~%08x", fnv1a(name));
    const size_t room = kNameMax > suffix.size() + 9 ? kNameMax - suffix.size() - 9 : 1;
    size_t cut = std::min(room, stem.size());
    // Never split a UTF-8 sequence: step back over continuation bytes.
    while (cut > 0 && (static_cast<unsigned char>(stem[cut]) & 0xC0) == 0x80)
      --cut;
    stem.resize(cut);
    stem += tag;
  }
  return stem;
}

} // namespace parlova
