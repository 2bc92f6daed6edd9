// Owning handles to libplist trees, and reading and writing them as XML or
// binary property lists.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <plist/plist.h>

namespace parlova {

struct PlistDeleter {
  void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

enum class PlistFormat { XML, Binary };

// XML or binary, told apart by the bytes. Nothing for anything else.
PlistPtr parsePropertyList(std::span<const uint8_t> bytes);
std::vector<uint8_t> serializePropertyList(plist_t node, PlistFormat format);

// Whether XML 1.0 can hold the text as it is (well-formed UTF-8 of allowed
// characters), and the text with U+FFFD for what it cannot.
bool fitsXml(std::string_view text);
std::string fittedToXml(std::string_view text);

// A dictionary's entries and an array's items, in stored order (libplist
// finds an array's n-th item by walking the list, so arrays are read front
// to back once).
std::vector<std::pair<std::string, plist_t>> plistDictionaryEntries(plist_t dictionary);
std::vector<plist_t> plistArrayItems(plist_t array);

// Small readers over borrowed nodes; each answers nothing for a node of
// another type.
std::optional<std::string> plistString(plist_t node);
std::optional<int64_t> plistInteger(plist_t node);
std::optional<double> plistReal(plist_t node);
std::optional<std::vector<uint8_t>> plistData(plist_t node);

} // namespace parlova
