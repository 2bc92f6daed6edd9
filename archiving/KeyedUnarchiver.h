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

#include "archiving/ArchiveDecoder.h"
#include "archiving/BinaryPlistView.h"
#include "archiving/Coder.h"
#include "foundation/AttributedString.h"
#include "foundation/FoundationClasses.h"

namespace parlova {

class KeyedUnarchiver final : public ArchiveDecoder {
public:
  // Or why the bytes are not a keyed archive at all.
  static std::variant<std::unique_ptr<KeyedUnarchiver>, std::string> forData(std::span<const uint8_t> bytes);

  Format format() const override { return Format::Keyed; }
  void setClass(std::string archivedName, ClassFactory factory) override;
  // Generic objects hold their keys.
  void setDecodesEverythingGenerically(bool generic) override { generic_ = generic; }
  std::variant<ObjectRef, std::string> decodeRoot() override { return decodeTopLevelObjectForKey("root"); }
  std::variant<ObjectRef, std::string> decodeMetadata() override { return decodeTopLevelObjectForKey("metadata"); }

  // The top-level object under `key` (null when absent), or why the archive
  // turned out to be damaged along the way.
  std::variant<ObjectRef, std::string> decodeTopLevelObjectForKey(std::string_view key);

  // A stored value, object or plain; also used by the per-object coder.
  ObjectRef decodeValue(std::optional<BinaryPlistView::Ref> ref);

  // Shortcuts for values whose objects nobody keeps: each answers what
  // decoding the value would, without making what it need not.
  // The text when the value decodes to a string.
  std::optional<std::string> decodeText(std::optional<BinaryPlistView::Ref> ref);
  // The items when the value decodes to an array, else none.
  std::vector<ObjectRef> decodeItems(std::optional<BinaryPlistView::Ref> ref);
  // An attribute set from a dictionary (empty for anything else).
  std::shared_ptr<const TextAttributes> decodeAttributes(std::optional<BinaryPlistView::Ref> ref);
  // The attribute sets of an array of dictionaries; nothing when the value
  // is no array or an empty one.
  std::vector<std::shared_ptr<const TextAttributes>> decodeAttributeList(std::optional<BinaryPlistView::Ref> ref);
  const BinaryPlistView &plist() const { return view_; }

private:
  using Ref = BinaryPlistView::Ref;
  KeyedUnarchiver(std::vector<uint8_t> converted, BinaryPlistView view, Ref objects, Ref top);
  // What a class is decoded as: the first name along its chain (the class,
  // then its superclasses) that is one of the program's classes or a known
  // Foundation or AppKit class.
  struct ClassInfo {
    std::vector<std::string> chain;
    FoundationClass kind = FoundationClass::None;
    const ClassFactory *factory = nullptr; // one of the program's classes
  };

  ObjectRef decodeReference(uint64_t uid);
  ObjectRef decodeInstance(const BinaryPlistView::Entry &objectDictionary, Ref classRef);
  // The class of an object dictionary, read once per class.
  const ClassInfo &classOf(Ref classRef);
  ObjectRef decodeGenerically(const std::vector<std::string> &chain, const BinaryPlistView::Entry &objectDictionary);
  ObjectRef decodeKnownClass(const ClassInfo &info, const BinaryPlistView::Entry &objectDictionary);
  std::optional<uint64_t> uidOf(const BinaryPlistView::Entry &entry) const;
  // An archived object not decoded yet, when its class is decoded as
  // `kind`: its dictionary. Nothing for anything else.
  std::optional<BinaryPlistView::Entry> pendingInstanceOf(std::optional<Ref> ref, FoundationClass kind, uint64_t &uid);
  // Keeps decoding depth and work within bounds; see decodeValue.
  void countWork();

  enum class State : uint8_t { NotYet, InProgress, Done };

  std::vector<uint8_t> converted_; // an XML archive, turned binary; empty when it was binary
  BinaryPlistView view_;           // over the caller's bytes or converted_
  BinaryPlistView::Entry objects_; // the $objects array
  Ref top_;
  std::map<std::string, ClassFactory, std::less<>> substitutions_;
  std::vector<ObjectRef> decoded_;
  std::unordered_map<uint64_t, ClassInfo> classes_; // by the class's UID
  std::vector<State> state_;
  int depth_ = 0;
  uint64_t work_ = 0; // values decoded, against archives that share inline values exponentially
  bool generic_ = false;
};

} // namespace parlova
