#include "platform/PropertyList.h"

#include <cstdlib>
#include <cstring>
#include <limits>

namespace parlova {
namespace {

struct FreeDeleter {
  void operator()(char *p) const { std::free(p); }
};

} // namespace

PlistPtr parsePropertyList(std::span<const uint8_t> bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max())
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
  if (format == PlistFormat::XML)
    plist_to_xml(node, &out, &length);
  else
    plist_to_bin(node, &out, &length);
  std::unique_ptr<char, FreeDeleter> owned(out);
  if (!out)
    return {};
  return std::vector<uint8_t>(out, out + length);
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
