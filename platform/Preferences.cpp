#include "platform/Preferences.h"

#include <cctype>
#include <climits>
#include <cmath>
#include <cstring>
#include <cstdio>

#include "platform/FileManager.h"
#include "platform/Home.h"
#include "platform/Log.h"

namespace parlova {

namespace {
// A file this user may not read is no damage: another user's run (root's,
// through sudo) wrote it.
constexpr std::string_view kNotYoursToRead = "it is not yours to read ";
} // namespace


namespace fs = std::filesystem;

PreferenceValue PreferenceValue::string(const std::string &value) {
  return PreferenceValue(PlistPtr(plist_new_string(value.c_str())));
}
PreferenceValue PreferenceValue::integer(int64_t value) {
  return PreferenceValue(PlistPtr(plist_new_uint(static_cast<uint64_t>(value))));
}
PreferenceValue PreferenceValue::real(double value) { return PreferenceValue(PlistPtr(plist_new_real(value))); }
PreferenceValue PreferenceValue::boolean(bool value) { return PreferenceValue(PlistPtr(plist_new_bool(value))); }
PreferenceValue PreferenceValue::copyOf(plist_t node) { return PreferenceValue(PlistPtr(plist_copy(node))); }

PreferenceValue::PreferenceValue(const PreferenceValue &other) : node_(plist_copy(other.node())) {}
PreferenceValue &PreferenceValue::operator=(const PreferenceValue &other) {
  if (this != &other)
    node_.reset(plist_copy(other.node()));
  return *this;
}

std::optional<std::string> PreferenceValue::stringValue() const {
  if (auto text = plistString(node()))
    return text;
  if (const auto real = plistReal(node())) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.15g", *real);
    return buffer;
  }
  if (plist_get_node_type(node()) == PLIST_UINT)
    return std::to_string(*plistInteger(node()));
  return std::nullopt;
}

bool PreferenceValue::boolValue() const {
  if (const auto text = plistString(node())) {
    size_t i = 0;
    while (i < text->size() && std::isspace(static_cast<unsigned char>((*text)[i])))
      ++i;
    if (i < text->size() && ((*text)[i] == '+' || (*text)[i] == '-'))
      ++i;
    while (i < text->size() && (*text)[i] == '0')
      ++i;
    if (i == text->size())
      return false;
    const char c = (*text)[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
  }
  if (const auto real = plistReal(node()))
    return *real != 0;
  if (const auto integer = plistInteger(node()))
    return *integer != 0;
  return false;
}

int32_t PreferenceValue::intValue() const {
  if (const auto text = plistString(node())) {
    size_t i = 0;
    while (i < text->size() && std::isspace(static_cast<unsigned char>((*text)[i])))
      ++i;
    bool negative = false;
    if (i < text->size() && ((*text)[i] == '+' || (*text)[i] == '-'))
      negative = (*text)[i++] == '-';
    long long value = 0;
    for (; i < text->size() && std::isdigit(static_cast<unsigned char>((*text)[i])); ++i) {
      value = value * 10 + ((*text)[i] - '0');
      if (value > static_cast<long long>(INT_MAX) + 1)
        break;
    }
    if (negative)
      return value > static_cast<long long>(INT_MAX) ? INT_MIN : static_cast<int32_t>(-value);
    return value > INT_MAX ? INT_MAX : static_cast<int32_t>(value);
  }
  if (const auto real = plistReal(node())) {
    if (!std::isfinite(*real))
      return 0;
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<int64_t>(std::fmod(std::trunc(*real), 4294967296.0))));
  }
  if (const auto integer = plistInteger(node()))
    return static_cast<int32_t>(static_cast<uint32_t>(*integer));
  return 0;
}

Preferences::Preferences(std::string domain, fs::path file) : domain_(std::move(domain)), file_(std::move(file)) {}

fs::path Preferences::fileForDomain(std::string_view domain) {
  return homeDirectory() / "Library" / "Preferences" / (std::string(domain) + ".plist");
}

std::optional<std::string> Preferences::damage() const {
  std::optional<std::string> why;
  readFromDisk(why);
  return why;
}

bool Preferences::isNotDamage(const std::string &damage) { return damage.starts_with(kNotYoursToRead); }

PlistPtr Preferences::readFromDisk(std::optional<std::string> &damage) const {
  damage.reset();
  std::error_code error;
  if (!fs::exists(fs::symlink_status(file_, error)))
    return PlistPtr(plist_new_dict());
  errno = 0;
  const auto bytes = fs::is_directory(file_, error) ? std::nullopt : readFileContents(file_);
  PlistPtr parsed = bytes ? parsePropertyList(*bytes) : nullptr;
  if (parsed && plist_get_node_type(parsed.get()) == PLIST_DICT)
    return parsed;
  // There but of no use (a folder, a permission or I/O error, damage):
  // never read as empty settings and never written over.
  if (fs::is_directory(file_, error))
    damage = "it is a folder, not a file";
  else if (!bytes && (errno == EACCES || errno == EPERM))
    damage = std::string(kNotYoursToRead) + "(" + describeItem(file_) + ")";
  else if (!bytes)
    damage = std::string("it cannot be read: ") + (errno ? std::strerror(errno) : "unknown error");
  else if (!parsed)
    damage = "it is not a property list (damaged or cut short)";
  else
    damage = "it holds no dictionary of settings";
  return PlistPtr(plist_new_dict());
}

void Preferences::loadIfNeeded() {
  if (values_)
    return;
  std::optional<std::string> damage;
  values_ = readFromDisk(damage);
}

std::optional<PreferenceValue> Preferences::copyAppValue(std::string_view key) {
  if (const auto pending = pending_.find(key); pending != pending_.end())
    return pending->second;
  loadIfNeeded();
  const plist_t node = plist_dict_get_item(values_.get(), std::string(key).c_str());
  if (!node)
    return std::nullopt;
  return PreferenceValue::copyOf(node);
}

bool Preferences::boolValue(std::string_view key) {
  const auto value = copyAppValue(key);
  return value && value->boolValue();
}

int32_t Preferences::intValue(std::string_view key) {
  const auto value = copyAppValue(key);
  return value ? value->intValue() : 0;
}

std::optional<std::string> Preferences::stringValue(std::string_view key) {
  const auto value = copyAppValue(key);
  return value ? value->stringValue() : std::nullopt;
}

void Preferences::setAppValue(std::string_view key, std::optional<PreferenceValue> value) {
  pending_.insert_or_assign(std::string(key), std::move(value));
}

bool Preferences::appSynchronize() {
  std::optional<std::string> damage;
  PlistPtr current = readFromDisk(damage);
  if (pending_.empty()) {
    values_ = std::move(current);
    return true;
  }
  for (const auto &[key, value] : pending_) {
    if (value)
      plist_dict_set_item(current.get(), key.c_str(), plist_copy(value->node()));
    else
      plist_dict_remove_item(current.get(), key.c_str());
  }
  std::error_code error;
  fs::create_directories(file_.parent_path(), error);
  if (damage) {
    // Keep the damaged file for the user rather than silently replace it,
    // and never in place of one kept before.
    const auto aside = keepAside(file_, ".unreadable");
    logFormat("The settings file %@ could not be read; it was kept as %@ and new settings were started.",
              file_.string(), aside.value_or(file_.string() + ".unreadable").string());
  }
  const auto bytes = serializePropertyList(current.get(), PlistFormat::Binary);
  const bool written =
      !bytes.empty() && writeFileAtomically(file_, bytes, Durability::Now, Visibility::Private);
  if (!written)
    logFormat("The settings file %@ could not be written.", file_.string());
  pending_.clear();
  values_ = std::move(current);
  return written;
}

PlistPtr Preferences::copyAllValues() {
  loadIfNeeded();
  PlistPtr all(plist_copy(values_.get()));
  for (const auto &[key, value] : pending_) {
    if (value)
      plist_dict_set_item(all.get(), key.c_str(), plist_copy(value->node()));
    else
      plist_dict_remove_item(all.get(), key.c_str());
  }
  return all;
}

} // namespace parlova
