// Reads Apple keyed archives (binary or XML property lists written by
// NSKeyedArchiver) into the program's objects.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Coder.h"
#include "platform/PropertyList.h"

namespace parlova {

class KeyedUnarchiver {
public:
  // Nothing when the bytes are not a keyed archive at all.
  static std::unique_ptr<KeyedUnarchiver> forData(std::span<const uint8_t> bytes);

  // Objects archived under `archivedName` are made by `factory` instead.
  void setClass(std::string archivedName, ClassFactory factory);

  // Every archived object becomes a GenericObject holding its keys, for
  // showing an archive as it is.
  void setDecodesEverythingGenerically(bool generic) { generic_ = generic; }

  // The top-level object under `key` (null when absent), or nothing when the
  // archive turns out to be damaged along the way.
  std::optional<ObjectRef> decodeTopLevelObjectForKey(std::string_view key);

  // Also used by the per-object coder.
  ObjectRef decodeValue(plist_t node);

private:
  KeyedUnarchiver(PlistPtr archive, plist_t objects, plist_t top);
  ObjectRef decodeReference(uint64_t uid);
  ObjectRef decodeInstance(plist_t objectDictionary);
  ObjectRef decodeGenerically(const std::vector<std::string> &chain, plist_t objectDictionary);
  ObjectRef decodeKnownClass(const std::string &name, plist_t objectDictionary, bool &known);

  enum class State : uint8_t { NotYet, InProgress, Done };

  PlistPtr archive_;
  std::vector<plist_t> objects_; // borrowed from archive_
  plist_t top_;
  std::map<std::string, ClassFactory, std::less<>> substitutions_;
  std::vector<ObjectRef> decoded_;
  std::vector<State> state_;
  int depth_ = 0;
  bool generic_ = false;
};

} // namespace parlova
