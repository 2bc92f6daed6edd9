// A preferences domain kept as a property list in
// ~/Library/Preferences/<domain>.plist, read and written one key at a time
// the way CFPreferences does for an application domain.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/PropertyList.h"

namespace parlova {

// One stored value (any property-list type), read the way Foundation reads
// a string or number object.
class PreferenceValue {
public:
  static PreferenceValue string(const std::string &value);
  static PreferenceValue integer(int64_t value);
  static PreferenceValue real(double value);
  static PreferenceValue boolean(bool value);
  static PreferenceValue copyOf(plist_t node);

  PreferenceValue(const PreferenceValue &other);
  PreferenceValue &operator=(const PreferenceValue &other);
  PreferenceValue(PreferenceValue &&) = default;
  PreferenceValue &operator=(PreferenceValue &&) = default;

  // A string as it is, a number as its decimal text; nothing otherwise.
  std::optional<std::string> stringValue() const;
  // Strings: after blanks and a sign and zeros, Y, y, T, t or a digit 1-9 is
  // YES. Numbers: non-zero. Anything else: NO.
  bool boolValue() const;
  // Strings: leading decimal integer, saturated; numbers truncated to 32 bits.
  int32_t intValue() const;

  plist_t node() const { return node_.get(); }

private:
  explicit PreferenceValue(PlistPtr node) : node_(std::move(node)) {}
  PlistPtr node_;
};

class Preferences {
public:
  Preferences(std::string domain, std::filesystem::path file);

  // The domain's file under the home folder.
  static std::filesystem::path fileForDomain(std::string_view domain);

  const std::string &domain() const { return domain_; }
  const std::filesystem::path &file() const { return file_; }

  std::optional<PreferenceValue> copyAppValue(std::string_view key);
  // Nothing removes the key. Takes effect on disk at the next synchronise.
  void setAppValue(std::string_view key, std::optional<PreferenceValue> value);
  // Writes pending changes (merged into what is on disk now) and re-reads
  // the file, so that changes another program made are seen. False when a
  // pending change could not be written.
  bool appSynchronize();

  // Shorthands for absent-as-NO/0 readings.
  bool boolValue(std::string_view key);
  int32_t intValue(std::string_view key);
  std::optional<std::string> stringValue(std::string_view key);

  // Every stored key and value, for printing a whole domain.
  PlistPtr copyAllValues();

  // Why the file is there but cannot be used: it cannot be read (the
  // system's reason), or it is no property list, or not a dictionary.
  // Nothing when it is fine or not there at all.
  std::optional<std::string> damage() const;
  // True for what damage() says of a file that is sound, as far as anyone
  // knows, but not readable by this user.
  static bool isNotDamage(const std::string &damage);

private:
  // The file's settings; empty ones, with `damage` saying why, when it is
  // there but of no use.
  PlistPtr readFromDisk(std::optional<std::string> &damage) const;
  void loadIfNeeded();

  std::string domain_;
  std::filesystem::path file_;
  PlistPtr values_;
  std::map<std::string, std::optional<PreferenceValue>, std::less<>> pending_;
};

} // namespace parlova
