// Reads Apple typed streams (NSArchiver's format, iChat 2 transcripts) into
// the program's objects.
#pragma once

#include <cstdint>
#include <map>
#include <unordered_map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Coder.h"
#include "platform/GenericObject.h"
#include "platform/TypedStreamReader.h"

namespace parlova {

class TypedStreamUnarchiver {
public:
  // Nothing when the bytes are not a typed stream at all.
  static std::unique_ptr<TypedStreamUnarchiver> forData(std::span<const uint8_t> bytes);

  // Objects archived under `archivedName` are made by `factory` instead.
  void setClass(std::string archivedName, ClassFactory factory);

  // Every object becomes a GenericObject holding its stored groups, for
  // showing an archive as it is.
  void setDecodesEverythingGenerically(bool generic) { generic_ = generic; }

  // The archive's root object, or nothing when the stream is damaged.
  std::optional<ObjectRef> decodeRootObject();

  // One stored value. Objects, classes, numbers and strings as they are;
  // arrays and structs as their elements.
  struct Value {
    enum class Kind { Nil, Integer, Real, String, Object, Compound };
    Kind kind = Kind::Nil;
    int64_t integer = 0;
    double real = 0;
    std::string text; // strings, C strings, selectors, raw byte arrays
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
  std::shared_ptr<const ArchivedClass> readClass(int8_t head);
  ObjectRef readObject(int8_t head);
  ObjectRef decodeObjectBody(const std::shared_ptr<const ArchivedClass> &archivedClass);
  // What the class itself or its nearest superclass known here is decoded
  // as: one of the program's classes, a Foundation or AppKit class, or
  // nothing (read through and kept inert).
  struct KnownClass {
    enum class Builtin {
      None, Substitution, String, Array, Dictionary, Number, Data, Date, URL, AttributedString, Font, Color,
      TextAttachment, FileWrapper
    };
    Builtin builtin = Builtin::None;
    const ClassFactory *factory = nullptr; // for a substitution
  };
  const KnownClass &knownClass(const ArchivedClass &archivedClass);

  struct TableEntry {
    enum class Kind { CString, Class, Object, ObjectInProgress } kind;
    ObjectRef object;
    std::string text;
  };

  TypedStreamReader reader_;
  std::vector<TableEntry> table_;
  std::map<std::string, ClassFactory, std::less<>> substitutions_;
  bool generic_ = false;
  int depth_ = 0;
  std::string lastEncoding_; // of the group read last, for generic objects
  std::vector<std::vector<Value>> spareGroups_;
  std::unordered_map<const ArchivedClass *, KnownClass> knownClasses_;
};

} // namespace parlova
