#include "foundation/PropertyListValue.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace parlova {

namespace {

// libplist keeps dates as whole seconds and microseconds since 2001.
Date dateFromNode(plist_t node) {
  int32_t seconds = 0;
  int32_t microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  return Date(static_cast<double>(seconds) + static_cast<double>(microseconds) / 1e6);
}

PlistPtr dateNode(Date date) {
  double seconds = std::floor(date.timeIntervalSinceReferenceDate());
  double fraction = date.timeIntervalSinceReferenceDate() - seconds;
  if (!std::isfinite(seconds))
    seconds = 0, fraction = 0;
  seconds = std::clamp(seconds, double(std::numeric_limits<int32_t>::min()),
                       double(std::numeric_limits<int32_t>::max()));
  return PlistPtr(plist_new_date(static_cast<int32_t>(seconds), static_cast<int32_t>(fraction * 1e6)));
}

struct NodeMaker {
  PlistPtr operator()(const std::string &text) const { return PlistPtr(plist_new_string(text.c_str())); }
  PlistPtr operator()(int64_t number) const { return PlistPtr(plist_new_uint(static_cast<uint64_t>(number))); }
  PlistPtr operator()(double number) const { return PlistPtr(plist_new_real(number)); }
  PlistPtr operator()(bool flag) const { return PlistPtr(plist_new_bool(flag)); }
  PlistPtr operator()(Date date) const { return dateNode(date); }
  PlistPtr operator()(const PlistValue::Data &bytes) const {
    return PlistPtr(plist_new_data(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
  }
  PlistPtr operator()(const PlistValue::Array &items) const {
    PlistPtr array(plist_new_array());
    for (const PlistValue &item : items)
      plist_array_append_item(array.get(), item.toNode().release());
    return array;
  }
  PlistPtr operator()(const PlistValue::Dictionary &entries) const {
    PlistPtr dictionary(plist_new_dict());
    for (const auto &[key, value] : entries)
      plist_dict_set_item(dictionary.get(), key.c_str(), value.toNode().release());
    return dictionary;
  }
  PlistPtr operator()(PlistValue::Uid uid) const { return PlistPtr(plist_new_uid(uid.value)); }
};

} // namespace

std::optional<PlistValue> PlistValue::fromNode(plist_t node) { return fromNode(node, 0); }

std::optional<PlistValue> PlistValue::fromNode(plist_t node, int depth) {
  // Nothing the program stores nests deeply; a file that does is damaged or
  // hostile, and reading it on would exhaust the stack.
  if (!node || depth > kMostNesting)
    return std::nullopt;
  switch (plist_get_node_type(node)) {
  case PLIST_STRING:
  case PLIST_KEY:
    return PlistValue(plistString(node).value_or(""));
  case PLIST_UINT:
    return PlistValue(plistInteger(node).value_or(0));
  case PLIST_REAL:
    return PlistValue(plistReal(node).value_or(0));
  case PLIST_BOOLEAN: {
    uint8_t flag = 0;
    plist_get_bool_val(node, &flag);
    return PlistValue(flag != 0);
  }
  case PLIST_DATE:
    return PlistValue(dateFromNode(node));
  case PLIST_DATA:
    return PlistValue(plistData(node).value_or(Data{}));
  case PLIST_UID: {
    uint64_t value = 0;
    plist_get_uid_val(node, &value);
    return PlistValue(Uid{value});
  }
  case PLIST_ARRAY: {
    Array items;
    for (plist_t item : plistArrayItems(node)) {
      auto value = fromNode(item, depth + 1);
      if (!value)
        return std::nullopt;
      items.push_back(std::move(*value));
    }
    return PlistValue(std::move(items));
  }
  case PLIST_DICT: {
    Dictionary entries;
    for (auto &[key, item] : plistDictionaryEntries(node)) {
      auto value = fromNode(item, depth + 1);
      if (!value)
        return std::nullopt;
      entries.emplace_back(std::move(key), std::move(*value));
    }
    return PlistValue(std::move(entries));
  }
  default:
    return std::nullopt;
  }
}

std::optional<PlistValue> PlistValue::parse(std::span<const uint8_t> bytes) {
  const PlistPtr root = parsePropertyList(bytes);
  return fromNode(root.get());
}

PlistPtr PlistValue::toNode() const { return std::visit(NodeMaker{}, storage_); }

std::vector<uint8_t> PlistValue::serialized(PlistFormat format) const {
  const PlistPtr node = toNode();
  return serializePropertyList(node.get(), format);
}

PlistValue *PlistValue::objectForKey(std::string_view key) {
  auto *entries = get<Dictionary>();
  if (!entries)
    return nullptr;
  for (auto &[name, value] : *entries)
    if (name == key)
      return &value;
  return nullptr;
}

const PlistValue *PlistValue::objectForKey(std::string_view key) const {
  return const_cast<PlistValue *>(this)->objectForKey(key);
}

const std::string *PlistValue::stringForKey(std::string_view key) const {
  const PlistValue *value = objectForKey(key);
  return value ? value->get<std::string>() : nullptr;
}

std::optional<Date> PlistValue::dateForKey(std::string_view key) const {
  const PlistValue *value = objectForKey(key);
  const Date *date = value ? value->get<Date>() : nullptr;
  return date ? std::optional<Date>(*date) : std::nullopt;
}

std::optional<int64_t> PlistValue::integerForKey(std::string_view key) const {
  const PlistValue *value = objectForKey(key);
  if (!value)
    return std::nullopt;
  if (const auto *number = value->get<int64_t>())
    return *number;
  if (const auto *flag = value->get<bool>())
    return *flag ? 1 : 0;
  if (const auto *real = value->get<double>()) {
    if (!std::isfinite(*real))
      return 0;
    return static_cast<int64_t>(std::clamp(*real, -9.2e18, 9.2e18));
  }
  if (const auto *text = value->get<std::string>())
    return std::strtoll(text->c_str(), nullptr, 10);
  return std::nullopt;
}

} // namespace parlova
