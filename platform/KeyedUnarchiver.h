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
#include <unordered_map>
#include <vector>

#include "platform/BinaryPlistView.h"
#include "platform/Coder.h"

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

  // A stored value, object or plain; also used by the per-object coder.
  ObjectRef decodeValue(std::optional<BinaryPlistView::Ref> ref);
  const BinaryPlistView &plist() const { return view_; }

private:
  using Ref = BinaryPlistView::Ref;
  KeyedUnarchiver(std::vector<uint8_t> converted, BinaryPlistView view, Ref objects, Ref top);
  ObjectRef decodeReference(uint64_t uid);
  ObjectRef decodeInstance(const BinaryPlistView::Entry &objectDictionary, Ref classRef);
  ObjectRef decodeGenerically(const std::vector<std::string> &chain, const BinaryPlistView::Entry &objectDictionary);
  ObjectRef decodeKnownClass(const std::string &name, const BinaryPlistView::Entry &objectDictionary, bool &known);
  std::optional<uint64_t> uidOf(const BinaryPlistView::Entry &entry) const;

  enum class State : uint8_t { NotYet, InProgress, Done };

  std::vector<uint8_t> converted_; // an XML archive, turned binary; empty when it was binary
  BinaryPlistView view_;           // over the caller's bytes or converted_
  BinaryPlistView::Entry objects_; // the $objects array
  Ref top_;
  std::map<std::string, ClassFactory, std::less<>> substitutions_;
  std::vector<ObjectRef> decoded_;
  std::unordered_map<uint64_t, std::vector<std::string>> classChains_; // by the class's UID
  std::vector<State> state_;
  int depth_ = 0;
  uint64_t work_ = 0; // values decoded, against archives that share inline values exponentially
  bool generic_ = false;
};

} // namespace parlova
