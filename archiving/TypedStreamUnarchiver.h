// Reads Apple typed streams (NSArchiver's format, iChat 2 transcripts) into
// the program's objects.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "archiving/ArchiveDecoder.h"
#include "archiving/Coder.h"
#include "archiving/TypedStreamReader.h"
#include "foundation/AttributedString.h"
#include "foundation/FoundationClasses.h"
#include "foundation/GenericObject.h"

namespace parlova {

class TypedStreamUnarchiver final : public ArchiveDecoder {
public:
  // Or why the bytes are not a typed stream at all.
  static std::variant<std::unique_ptr<TypedStreamUnarchiver>, std::string> forData(std::span<const uint8_t> bytes);

  Format format() const override { return Format::TypedStream; }
  void setClass(std::string archivedName, ClassFactory factory) override;
  // Generic objects hold their stored groups.
  void setDecodesEverythingGenerically(bool generic) override { generic_ = generic; }
  void setReadProgress(ReadProgress progress) override { reader_.setProgress(std::move(progress)); }
  // The archive's first object, or why the stream is damaged.
  std::variant<ObjectRef, std::string> decodeRoot() override;
  // A typed stream has none.
  std::variant<ObjectRef, std::string> decodeMetadata() override { return ObjectRef(); }

  // One stored value. Objects, classes, numbers and strings as they are;
  // arrays and structs as their elements.
  struct Value {
    enum class Kind { Nil, Integer, Real, String, Object, Compound };
    Kind kind = Kind::Nil;
    int64_t integer = 0;
    double real = 0;
    std::string_view text; // strings, C strings, selectors, raw byte arrays: in the stream
    ObjectRef object; // objects and classes
    std::vector<Value> elements;
  };

  // Reads the values of one object in stream order, a group at a time.
  class Cursor;

private:
  explicit TypedStreamUnarchiver(TypedStreamReader reader) : reader_(std::move(reader)) {}

  void readGroup(std::vector<Value> &values);
  void readValues(const std::vector<std::string> &encodings, std::vector<Value> &values);
  Value readValue(const std::string &encoding);
  // A class and its new superclasses; the index of the class in classes_,
  // or nothing for nil.
  std::optional<size_t> readClass(int8_t head);
  // What an object is read for: attribute dictionaries are decoded straight
  // into attribute sets.
  enum class Purpose { AnyObject, Attributes };
  ObjectRef readObject(int8_t head, Purpose purpose = Purpose::AnyObject);
  // A string object's text without making the object; nothing for nil or
  // for an object that is no string (which goes to `other` when given).
  // The view lasts as long as the unarchiver.
  std::optional<std::string_view> readStringObjectText(int8_t head, ObjectRef *other = nullptr);
  struct TableEntry;
  // The table entry a reference names.
  TableEntry &referencedEntry(int8_t head);
  // A new object's table entry, still under way, and its class.
  struct NewObject {
    size_t index;
    size_t classIndex;
  };
  NewObject beginNewObject();
  ObjectRef decodeObjectBody(size_t classIndex, Purpose purpose);
  // What the class itself or its nearest superclass known here is decoded
  // as: one of the program's classes, a Foundation or AppKit class, or
  // nothing (read through and kept inert).
  struct KnownClass {
    FoundationClass kind = FoundationClass::None;
    const ClassFactory *factory = nullptr; // one of the program's classes
  };
  const KnownClass &knownClass(size_t classIndex);

  struct TableEntry {
    // A string object is kept as its text until something needs the object,
    // a date as its time.
    enum class Kind : uint8_t { CString, Class, Object, ObjectInProgress, StringText, Date };
    TableEntry(Kind entryKind, size_t entryIndex) : kind(entryKind), index(static_cast<uint32_t>(entryIndex)) {}
    Kind kind : 3;
    uint32_t index : 29; // in texts_, classes_, objects_ or dates_, by kind
  };
  // A long chat's table holds millions of entries, four bytes each: no
  // index can pass the number of entries, which is held below 2^29.
  static constexpr size_t kMostEntries = size_t{1} << 29;
  void addEntry(TableEntry entry);
  // A new entry for an object read in full.
  TableEntry keep(ObjectRef object);
  struct ClassEntry {
    std::shared_ptr<const ArchivedClass> archivedClass;
    std::optional<KnownClass> known;
  };
  const std::shared_ptr<const ArchivedClass> &archivedClass(size_t classIndex) const {
    return classes_[classIndex].archivedClass;
  }

  TypedStreamReader reader_;
  // Every C string, class and object, numbered in stream order.
  std::vector<TableEntry> table_;
  std::vector<TypedStreamReader::Stretch> texts_;
  std::vector<ObjectRef> objects_;
  std::vector<double> dates_;
  std::vector<ClassEntry> classes_;
  std::vector<std::shared_ptr<const TextAttributes>> spareDictionaries_;
  std::vector<AttributedString::RunSpec> spareRuns_;
  std::map<std::string, ClassFactory, std::less<>> substitutions_;
  bool generic_ = false;
  int depth_ = 0;
  std::string lastEncoding_; // of the group read last, for generic objects
};

} // namespace parlova
