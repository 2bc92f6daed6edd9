#include "foundation/PropertyList.h"

#include "foundation/Unicode.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>

namespace parlova {
namespace {

struct FreeDeleter {
  void operator()(char *p) const { std::free(p); }
};

// libplist reads and frees nested containers recursively, so a file nested
// a few hundred thousand levels deep (a few hundred kilobytes) would exhaust
// the stack. Nothing real nests anywhere near this deep.
constexpr int kMostNesting = 512;

bool startsWith(std::span<const uint8_t> bytes, size_t at, std::string_view text) {
  return at + text.size() <= bytes.size() && std::memcmp(bytes.data() + at, text.data(), text.size()) == 0;
}

// XML: counts open <array> and <dict> elements; a self-closing one does not
// nest.
bool xmlNestingWithinLimit(std::span<const uint8_t> bytes) {
  int depth = 0;
  for (size_t at = 0; at < bytes.size(); ++at) {
    if (bytes[at] != '<')
      continue;
    const bool closing = startsWith(bytes, at + 1, "/");
    const size_t name = at + 1 + (closing ? 1 : 0);
    size_t end = name;
    if (startsWith(bytes, name, "array"))
      end = name + 5;
    else if (startsWith(bytes, name, "dict"))
      end = name + 4;
    else
      continue;
    size_t close = end;
    while (close < bytes.size() && bytes[close] != '>')
      ++close;
    const bool selfClosing = close > end && bytes[close - 1] == '/';
    if (closing)
      depth = std::max(0, depth - 1);
    else if (!selfClosing && ++depth > kMostNesting)
      return false;
  }
  return true;
}

uint64_t bigEndian(std::span<const uint8_t> bytes, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i)
    value = value << 8 | bytes[at + i];
  return value;
}

// Binary: follows the object references from the top object with a stack of
// its own, as deep as the containers go, and refuses a dictionary key that
// holds a NUL: libplist reads such a key but aborts the process when it is
// asked for it. Anything else malformed is left for libplist to refuse.
bool binaryFitForLibplist(std::span<const uint8_t> bytes) {
  if (bytes.size() < 8 + 32)
    return true;
  const size_t trailer = bytes.size() - 32;
  const size_t offsetSize = bytes[trailer + 6];
  const size_t refSize = bytes[trailer + 7];
  const uint64_t count = bigEndian(bytes, trailer + 8, 8);
  const uint64_t top = bigEndian(bytes, trailer + 16, 8);
  const uint64_t table = bigEndian(bytes, trailer + 24, 8);
  if (offsetSize == 0 || offsetSize > 8 || refSize == 0 || refSize > 8 || count == 0 || count > bytes.size() ||
      top >= count || table > trailer || (trailer - table) / offsetSize < count)
    return true;
  const auto offsetOf = [&](uint64_t object) { return bigEndian(bytes, table + object * offsetSize, offsetSize); };
  // An object's kind, where its contents start and its length (in
  // elements or characters), or nothing when it does not read.
  struct Object {
    uint8_t kind;
    size_t first;
    uint64_t length;
  };
  const auto objectAt = [&](uint64_t object) -> std::optional<Object> {
    const uint64_t at = offsetOf(object);
    if (at >= trailer)
      return std::nullopt;
    Object found{static_cast<uint8_t>(bytes[at] >> 4), at + 1, bytes[at] & 0x0Fu};
    if (found.length == 0x0F) {
      if (found.first >= trailer || (bytes[found.first] >> 4) != 0x1)
        return std::nullopt;
      const size_t width = size_t{1} << (bytes[found.first] & 0x0F);
      if (width > 8 || found.first + 1 + width > trailer)
        return std::nullopt;
      found.length = bigEndian(bytes, found.first + 1, width);
      found.first += 1 + width;
    }
    return found;
  };
  const auto holdsNul = [&](uint64_t key) {
    const auto string = key < count ? objectAt(key) : std::nullopt;
    if (!string || (string->kind != 0x5 && string->kind != 0x6))
      return false;
    const size_t width = string->kind == 0x6 ? 2 : 1;
    if (string->length > (trailer - string->first) / width)
      return false;
    for (size_t i = 0; i < string->length; ++i)
      if (bigEndian(bytes, string->first + i * width, width) == 0)
        return true;
    return false;
  };
  // The references a container holds: where they start and how many.
  bool damagedKey = false;
  const auto references = [&](uint64_t object, size_t &first, uint64_t &refs) {
    const auto container = objectAt(object);
    if (!container || (container->kind != 0xA && container->kind != 0xB && container->kind != 0xC &&
                       container->kind != 0xD))
      return false;
    first = container->first;
    refs = container->kind == 0xD ? container->length * 2 : container->length;
    if (refs > (trailer - first) / refSize)
      return false;
    if (container->kind == 0xD)
      for (uint64_t i = 0; i < container->length && !damagedKey; ++i)
        damagedKey = holdsNul(bigEndian(bytes, first + i * refSize, refSize));
    return true;
  };
  // Heights: unknown, being walked (a cycle when met again), or known.
  std::vector<int> height(count, -1);
  struct Frame {
    uint64_t object;
    size_t first;
    uint64_t refs;
    uint64_t next;
  };
  std::vector<Frame> stack;
  stack.reserve(kMostNesting + 1);
  const auto enter = [&](uint64_t object) {
    Frame frame{object, 0, 0, 0};
    if (!references(object, frame.first, frame.refs)) {
      height[object] = 0;
      return true;
    }
    if (stack.size() >= kMostNesting)
      return false;
    height[object] = -2;
    stack.push_back(frame);
    return true;
  };
  if (!enter(top) || damagedKey)
    return false;
  while (!stack.empty()) {
    Frame &frame = stack.back();
    if (frame.next == frame.refs) {
      int tallest = 0;
      for (uint64_t i = 0; i < frame.refs; ++i) {
        const uint64_t child = bigEndian(bytes, frame.first + i * refSize, refSize);
        if (child < count)
          tallest = std::max(tallest, height[child]);
      }
      height[frame.object] = tallest + 1;
      stack.pop_back();
      continue;
    }
    const uint64_t child = bigEndian(bytes, frame.first + frame.next++ * refSize, refSize);
    if (child >= count || height[child] >= 0)
      continue;
    if (height[child] == -2 || !enter(child) || damagedKey)
      return false;
  }
  return height[top] <= kMostNesting;
}

// XML 1.0 holds tab, line feed, carriage return and every character from
// U+0020 on but U+FFFE and U+FFFF; anything else in a string makes the
// whole file unreadable to a conforming reader. Surrogates count in pairs.
bool allowedInXml(char16_t unit) {
  return unit == '\t' || unit == '\n' || unit == '\r' || (unit >= 0x20 && unit < 0xD800) ||
         (unit >= 0xE000 && unit <= 0xFFFD);
}

bool startsSurrogatePair(std::u16string_view units, size_t at) {
  return units[at] >= 0xD800 && units[at] <= 0xDBFF && at + 1 < units.size() && units[at + 1] >= 0xDC00 &&
         units[at + 1] <= 0xDFFF;
}

bool treeFitsXml(plist_t node) {
  switch (plist_get_node_type(node)) {
  case PLIST_STRING:
    return fitsXml(plistString(node).value_or(""));
  case PLIST_DICT:
    for (const auto &[key, value] : plistDictionaryEntries(node))
      if (!fitsXml(key) || !treeFitsXml(value))
        return false;
    return true;
  case PLIST_ARRAY:
    for (const plist_t item : plistArrayItems(node))
      if (!treeFitsXml(item))
        return false;
    return true;
  default:
    return true;
  }
}

// Strings get U+FFFD for what XML cannot hold; an entry whose key cannot be
// written at all is left out, since a changed key could meet another.
void fitTreeToXml(plist_t node) {
  switch (plist_get_node_type(node)) {
  case PLIST_STRING:
    plist_set_string_val(node, fittedToXml(plistString(node).value_or("")).c_str());
    break;
  case PLIST_DICT:
    for (const auto &[key, value] : plistDictionaryEntries(node)) {
      if (fitsXml(key))
        fitTreeToXml(value);
      else
        plist_dict_remove_item(node, key.c_str());
    }
    break;
  case PLIST_ARRAY:
    for (const plist_t item : plistArrayItems(node))
      fitTreeToXml(item);
    break;
  default:
    break;
  }
}

} // namespace

bool fitsXml(std::string_view text) {
  const bool plainAscii = std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 0x20 && byte < 0x80) || byte == '\t' || byte == '\n' || byte == '\r';
  });
  if (plainAscii)
    return true;
  const std::u16string units = utf8ToUtf16(text);
  for (size_t at = 0; at < units.size(); ++at) {
    if (startsSurrogatePair(units, at))
      ++at;
    else if (!allowedInXml(units[at]))
      return false;
  }
  return utf16ToUtf8(units) == text; // malformed UTF-8 came back changed
}

std::string fittedToXml(std::string_view text) {
  const std::u16string units = utf8ToUtf16(text);
  std::u16string fitted;
  fitted.reserve(units.size());
  for (size_t at = 0; at < units.size(); ++at) {
    if (startsSurrogatePair(units, at)) {
      fitted += units[at];
      fitted += units[++at];
    } else {
      fitted += allowedInXml(units[at]) ? units[at] : u'\uFFFD';
    }
  }
  return utf16ToUtf8(fitted);
}

PlistPtr parsePropertyList(std::span<const uint8_t> bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max())
    return nullptr;
  const bool binary = bytes.size() >= 8 && std::memcmp(bytes.data(), "bplist00", 8) == 0;
  if (!(binary ? binaryFitForLibplist(bytes) : xmlNestingWithinLimit(bytes)))
    return nullptr;
  plist_t node = nullptr;
  const auto *data = reinterpret_cast<const char *>(bytes.data());
  const auto length = static_cast<uint32_t>(bytes.size());
  if (bytes.size() >= 8 && std::memcmp(data, "bplist00", 8) == 0)
    plist_from_bin(data, length, &node);
  else
    plist_from_xml(data, length, &node);
  return PlistPtr(node);
}

std::vector<uint8_t> serializePropertyList(plist_t node, PlistFormat format) {
  char *out = nullptr;
  uint32_t length = 0;
  PlistPtr fitted;
  if (format == PlistFormat::XML) {
    // Every XML file written must read back in any conforming reader, so
    // the texts are fitted here, once, for every archive.
    if (!treeFitsXml(node)) {
      fitted.reset(plist_copy(node));
      fitTreeToXml(fitted.get());
      node = fitted.get();
    }
    plist_to_xml(node, &out, &length);
  } else {
    plist_to_bin(node, &out, &length);
  }
  std::unique_ptr<char, FreeDeleter> owned(out);
  if (!out)
    return {};
  if (format == PlistFormat::Binary)
    return std::vector<uint8_t>(out, out + length);
  // The writer puts a carriage return in raw, and XML readers turn a raw
  // one into a line feed: as a character reference it survives. The
  // writer's own line breaks are line feeds, so every one is a text's.
  std::vector<uint8_t> bytes;
  bytes.reserve(length);
  for (const char c : std::string_view(out, length)) {
    if (c == '\r')
      bytes.insert(bytes.end(), {'&', '#', '1', '3', ';'});
    else
      bytes.push_back(static_cast<uint8_t>(c));
  }
  return bytes;
}

std::vector<std::pair<std::string, plist_t>> plistDictionaryEntries(plist_t dictionary) {
  std::vector<std::pair<std::string, plist_t>> entries;
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(dictionary, &it);
  while (true) {
    char *key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(dictionary, it, &key, &value);
    std::unique_ptr<char, FreeDeleter> ownedKey(key);
    if (!value)
      break;
    entries.emplace_back(key ? key : "", value);
  }
  std::free(it);
  return entries;
}

std::vector<plist_t> plistArrayItems(plist_t array) {
  std::vector<plist_t> items;
  items.reserve(plist_array_get_size(array));
  plist_array_iter it = nullptr;
  plist_array_new_iter(array, &it);
  for (plist_t item = nullptr;;) {
    plist_array_next_item(array, it, &item);
    if (!item)
      break;
    items.push_back(item);
  }
  std::free(it);
  return items;
}

std::optional<std::string> plistString(plist_t node) {
  if (!node)
    return std::nullopt;
  if (plist_get_node_type(node) == PLIST_STRING) {
    // The pointer form: libplist's copying getter aborts on strings that
    // hold a NUL, which a damaged archive can.
    uint64_t length = 0;
    const char *value = plist_get_string_ptr(node, &length);
    return value ? std::string(value, length) : std::string();
  }
  if (plist_get_node_type(node) == PLIST_KEY) {
    char *value = nullptr;
    plist_get_key_val(node, &value);
    std::unique_ptr<char, FreeDeleter> owned(value);
    return std::string(value ? value : "");
  }
  return std::nullopt;
}

std::optional<int64_t> plistInteger(plist_t node) {
  if (!node)
    return std::nullopt;
  switch (plist_get_node_type(node)) {
  case PLIST_UINT: {
    uint64_t value = 0;
    plist_get_uint_val(node, &value);
    // libplist keeps every integer unsigned; negative numbers come back as
    // their two's complement.
    return static_cast<int64_t>(value);
  }
  case PLIST_BOOLEAN: {
    uint8_t value = 0;
    plist_get_bool_val(node, &value);
    return value ? 1 : 0;
  }
  default:
    return std::nullopt;
  }
}

std::optional<double> plistReal(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_REAL)
    return std::nullopt;
  double value = 0;
  plist_get_real_val(node, &value);
  return value;
}

std::optional<std::vector<uint8_t>> plistData(plist_t node) {
  if (!node || plist_get_node_type(node) != PLIST_DATA)
    return std::nullopt;
  uint64_t length = 0;
  const auto *value = reinterpret_cast<const uint8_t *>(plist_get_data_ptr(node, &length));
  if (!value)
    return std::vector<uint8_t>{};
  return std::vector<uint8_t>(value, value + length);
}

} // namespace parlova
