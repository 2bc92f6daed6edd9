#include "foundation/FoundationValues.h"

#include "foundation/CalendarFormat.h"

#include <cctype>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>

namespace parlova {
namespace {

} // namespace

std::string quotedForDescription(const std::string &text) {
  bool plain = !text.empty();
  for (const unsigned char c : text) {
    if (!(std::isalnum(c) || c == '_')) {
      plain = false;
      break;
    }
  }
  if (plain)
    return text;
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\')
      out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out + "\"";
}

namespace {

std::string describeElement(const ObjectRef &object) {
  if (!object)
    return "<null>";
  if (const auto string = objectAs<StringObject>(object))
    return quotedForDescription(string->value());
  std::string text = object->description();
  std::string indented;
  for (const char c : text) {
    indented += c;
    if (c == '\n')
      indented += "    ";
  }
  return indented;
}

} // namespace

std::string NumberObject::description() const {
  if (const auto *b = std::get_if<bool>(&value_))
    return *b ? "1" : "0";
  if (const auto *i = std::get_if<int64_t>(&value_))
    return std::to_string(*i);
  char text[64];
  std::snprintf(text, sizeof text, "%.17g", std::get<double>(value_));
  return text;
}

int64_t NumberObject::longLongValue() const {
  if (const auto *b = std::get_if<bool>(&value_))
    return *b ? 1 : 0;
  if (const auto *i = std::get_if<int64_t>(&value_))
    return *i;
  const double d = std::get<double>(value_);
  if (std::isnan(d))
    return 0;
  if (d >= 9.2e18)
    return std::numeric_limits<int64_t>::max();
  if (d <= -9.2e18)
    return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

int32_t NumberObject::intValue() const {
  return static_cast<int32_t>(static_cast<uint32_t>(longLongValue()));
}

double NumberObject::doubleValue() const {
  if (const auto *d = std::get_if<double>(&value_))
    return *d;
  return static_cast<double>(longLongValue());
}

bool NumberObject::boolValue() const {
  if (const auto *d = std::get_if<double>(&value_))
    return *d != 0;
  return longLongValue() != 0;
}

std::string DataObject::description() const {
  std::string out = "<";
  char hex[3];
  for (size_t i = 0; i < bytes_.size(); ++i) {
    if (i > 0 && i % 4 == 0)
      out += ' ';
    std::snprintf(hex, sizeof hex, "%02x", bytes_[i]);
    out += hex;
  }
  return out + ">";
}

std::string ArrayObject::description() const {
  if (items_.empty())
    return "(\n)";
  std::string out = "(\n";
  for (size_t i = 0; i < items_.size(); ++i) {
    out += "    " + describeElement(items_[i]);
    out += i + 1 < items_.size() ? ",\n" : "\n";
  }
  return out + ")";
}

std::string DictionaryObject::description() const {
  std::string out = "{\n";
  for (const auto &[key, value] : entries_)
    out += "    " + describeElement(key) + " = " + describeElement(value) + ";\n";
  return out + "}";
}

ObjectRef DictionaryObject::objectForKey(std::string_view key) const {
  for (const auto &[k, value] : entries_) {
    const auto string = objectAs<StringObject>(k);
    if (string && string->value() == key)
      return value;
  }
  return nullptr;
}

std::string stringValueOf(const ObjectRef &object) {
  const auto string = objectAs<StringObject>(object);
  return string ? string->value() : std::string();
}

std::string DateObject::description() const { return describeDate(date_); }

} // namespace parlova
