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

std::optional<std::string> plistString(plist_t node) {
  if (!node || (plist_get_node_type(node) != PLIST_STRING && plist_get_node_type(node) != PLIST_KEY))
    return std::nullopt;
  char *value = nullptr;
  if (plist_get_node_type(node) == PLIST_STRING)
    plist_get_string_val(node, &value);
  else
    plist_get_key_val(node, &value);
  std::unique_ptr<char, FreeDeleter> owned(value);
  return std::string(value ? value : "");
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
  char *value = nullptr;
  uint64_t length = 0;
  plist_get_data_val(node, &value, &length);
  std::unique_ptr<char, FreeDeleter> owned(value);
  if (!value)
    return std::vector<uint8_t>{};
  return std::vector<uint8_t>(value, value + length);
}

} // namespace parlova
