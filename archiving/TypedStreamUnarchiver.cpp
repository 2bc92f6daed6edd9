#include "archiving/TypedStreamUnarchiver.h"

#include <limits>

#include "foundation/AttributedString.h"
#include "foundation/FileWrapper.h"
#include "foundation/FoundationValues.h"
#include "foundation/TextAttributes.h"
#include "foundation/Unicode.h"

namespace parlova {

using namespace typedstream;
using Value = TypedStreamUnarchiver::Value;

namespace {

// A value as an object, for generic objects and containers.
ObjectRef asObject(const Value &value) {
  switch (value.kind) {
  case Value::Kind::Nil:
    return nullptr;
  case Value::Kind::Integer:
    return std::make_shared<NumberObject>(value.integer);
  case Value::Kind::Real:
    return std::make_shared<NumberObject>(value.real);
  case Value::Kind::String:
    return std::make_shared<StringObject>(std::string(value.text));
  case Value::Kind::Object:
    return value.object;
  case Value::Kind::Compound: {
    if (value.elements.empty() && !value.text.empty())
      return std::make_shared<DataObject>(std::vector<uint8_t>(value.text.begin(), value.text.end()));
    std::vector<ObjectRef> items;
    for (const Value &element : value.elements)
      items.push_back(asObject(element));
    return std::make_shared<ArrayObject>(std::move(items));
  }
  }
  return nullptr;
}

// The bytes of a raw byte array (in the stream) or of a data object (kept
// by the unarchiver's table): valid while the unarchiver is.
std::optional<std::span<const uint8_t>> bytesOf(const Value &value) {
  if (value.kind == Value::Kind::Compound && value.elements.empty())
    return std::span(reinterpret_cast<const uint8_t *>(value.text.data()), value.text.size());
  if (value.kind == Value::Kind::Object)
    if (const auto *data = dynamic_cast<const DataObject *>(value.object.get()))
      return std::span<const uint8_t>(data->bytes());
  return std::nullopt;
}

// NSArchiver's property-list encoding (NSFont's name): a little-endian type
// word, then for strings and data a length and the bytes.
std::optional<std::string> stringFromSerializedPropertyList(std::span<const uint8_t> bytes) {
  const auto word = [&](size_t at) -> std::optional<uint32_t> {
    if (at + 4 > bytes.size())
      return std::nullopt;
    return static_cast<uint32_t>(bytes[at]) | static_cast<uint32_t>(bytes[at + 1]) << 8 |
           static_cast<uint32_t>(bytes[at + 2]) << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
  };
  const auto type = word(0);
  const auto length = word(4);
  if (!type || !length || *length > bytes.size() - 8)
    return std::nullopt;
  const auto *data = bytes.data() + 8;
  if (*type == 5) { // NeXTSTEP 8-bit text; font names are plain ASCII
    std::string text;
    for (uint32_t i = 0; i < *length; ++i)
      text += data[i] < 0x80 ? static_cast<char>(data[i]) : '?';
    return text;
  }
  if (*type == 6 && *length % 2 == 0) { // UTF-16 with a byte-order mark
    bool big = true;
    uint32_t i = 0;
    if (*length >= 2 && data[0] == 0xFF && data[1] == 0xFE)
      big = false, i = 2;
    else if (*length >= 2 && data[0] == 0xFE && data[1] == 0xFF)
      i = 2;
    std::u16string units;
    for (; i + 1 < *length; i += 2)
      units += static_cast<char16_t>(big ? (data[i] << 8 | data[i + 1]) : (data[i + 1] << 8 | data[i]));
    return utf16ToUtf8(units);
  }
  return std::nullopt;
}

} // namespace

class TypedStreamUnarchiver::Cursor final : public Coder {
public:
  explicit Cursor(TypedStreamUnarchiver &archive) : archive_(archive), reader_(archive.reader_) {}

  bool atEndOfObject() const { return !insideGroup() && reader_.peekHead() == kEndOfObject; }

  std::optional<Value> next() {
    const std::string *encoding = nextEncoding();
    if (!encoding)
      return std::nullopt;
    return archive_.readValue(*encoding);
  }

  // The typed readers below take the common encodings straight from the
  // stream; anything else is read as a value and judged by its kind.
  ObjectRef nextObject(Purpose purpose = Purpose::AnyObject) {
    const std::string *encoding = nextEncoding();
    if (!encoding)
      return nullptr;
    if (*encoding == "@") {
      const NestingGuard nesting(archive_.depth_);
      return archive_.readObject(reader_.readHead(), purpose);
    }
    Value value = archive_.readValue(*encoding);
    return value.kind == Value::Kind::Object ? std::move(value.object) : nullptr;
  }
  // The text of the next object if it is a string; any other object goes
  // to `other` when asked for.
  std::optional<std::string_view> nextStringObjectText(ObjectRef *other = nullptr) {
    const std::string *encoding = nextEncoding();
    if (!encoding)
      return std::nullopt;
    if (*encoding == "@") {
      const NestingGuard nesting(archive_.depth_);
      return archive_.readStringObjectText(reader_.readHead(), other);
    }
    Value value = archive_.readValue(*encoding);
    if (other && value.kind == Value::Kind::Object)
      *other = std::move(value.object);
    return std::nullopt;
  }
  std::optional<int64_t> nextInteger() {
    const std::string *encoding = nextEncoding();
    if (!encoding)
      return std::nullopt;
    if (encoding->size() == 1) {
      switch (encoding->front()) {
      case 's':
      case 'i':
      case 'l':
      case 'q':
        return reader_.readInteger(reader_.readHead(), true);
      case 'S':
      case 'I':
      case 'L':
      case 'Q':
        return reader_.readInteger(reader_.readHead(), false);
      default:
        break;
      }
    }
    const Value value = archive_.readValue(*encoding);
    if (value.kind == Value::Kind::Integer)
      return value.integer;
    return std::nullopt;
  }
  std::optional<double> nextReal() {
    const std::string *encoding = nextEncoding();
    if (!encoding)
      return std::nullopt;
    if (*encoding == "f")
      return reader_.readFloat(reader_.readHead());
    if (*encoding == "d")
      return reader_.readDouble(reader_.readHead());
    const Value value = archive_.readValue(*encoding);
    if (value.kind == Value::Kind::Real)
      return value.real;
    if (value.kind == Value::Kind::Integer)
      return static_cast<double>(value.integer);
    return std::nullopt;
  }
  std::optional<std::string_view> nextString() {
    const std::string *encoding = nextEncoding();
    if (!encoding)
      return std::nullopt;
    if (*encoding == "+")
      return reader_.readUnsharedString(reader_.readHead());
    const Value value = archive_.readValue(*encoding);
    if (value.kind == Value::Kind::String)
      return value.text;
    return std::nullopt;
  }
  // NSArchiver's data object: a length, then an array of that many bytes.
  std::optional<std::span<const uint8_t>> nextDataObject() {
    const auto length = nextInteger();
    if (!length)
      return std::nullopt;
    const auto value = next();
    auto bytes = value ? bytesOf(*value) : std::nullopt;
    if (!bytes || bytes->size() != static_cast<size_t>(*length))
      return std::nullopt;
    return bytes;
  }

  // Reads whatever the object still holds; the values go to `fields` when
  // given.
  void drain(std::vector<GenericObject::Field> *fields) {
    while (insideGroup()) {
      const Value value = archive_.readValue((*group_)[nextInGroup_++]);
      if (fields)
        fields->push_back({"", {asObject(value)}});
    }
    std::vector<Value> group;
    while (reader_.peekHead() != kEndOfObject) {
      if (!fields) {
        for (const std::string &encoding : reader_.readTypeEncodings(reader_.readHead()))
          archive_.readValue(encoding);
        continue;
      }
      archive_.readGroup(group);
      GenericObject::Field field{archive_.lastEncoding_, {}};
      for (const Value &value : group)
        field.values.push_back(asObject(value));
      fields->push_back(std::move(field));
    }
    reader_.readHead();
  }

  // Coder, for the program's own classes: positions only.
  bool allowsKeyedCoding() const override { return false; }
  ObjectRef decodeObjectForKey(std::string_view) override { return nullptr; }
  int32_t decodeInt32ForKey(std::string_view) override { return 0; }
  ObjectRef decodeObject() override { return nextObject(); }
  uint32_t decodeUnsignedInt() override { return static_cast<uint32_t>(nextInteger().value_or(0)); }
  std::string decodeStringObject() override { return std::string(nextStringObjectText().value_or("")); }

private:
  bool insideGroup() const { return group_ && nextInGroup_ < group_->size(); }

  // A group's values follow one another in the stream, so they are read as
  // they are asked for; a new group's encodings come first. Nothing at the
  // object's end.
  const std::string *nextEncoding() {
    if (!insideGroup()) {
      if (reader_.peekHead() == kEndOfObject)
        return nullptr;
      group_ = &reader_.readTypeEncodings(reader_.readHead());
      nextInGroup_ = 0;
    }
    return &(*group_)[nextInGroup_++];
  }

  TypedStreamUnarchiver &archive_;
  TypedStreamReader &reader_;
  const std::vector<std::string> *group_ = nullptr; // the encodings of the group being read
  size_t nextInGroup_ = 0;
};

std::variant<std::unique_ptr<TypedStreamUnarchiver>, std::string>
TypedStreamUnarchiver::forData(std::span<const uint8_t> bytes) {
  // Places in the stream are kept in 32 bits.
  if (bytes.size() > std::numeric_limits<uint32_t>::max())
    return std::string("a typed stream of 4 GiB or more is more than a transcript can be");
  auto reader = TypedStreamReader::forData(bytes);
  if (!reader)
    return std::string("not a typed stream: it does not start with a typed stream's header");
  auto unarchiver = std::unique_ptr<TypedStreamUnarchiver>(new TypedStreamUnarchiver(std::move(*reader)));
  // A transcript numbers an entry every ten bytes or so.
  unarchiver->table_.reserve(bytes.size() / 10);
  unarchiver->objects_.reserve(bytes.size() / 40);
  return unarchiver;
}

void TypedStreamUnarchiver::setClass(std::string archivedName, ClassFactory factory) {
  substitutions_[std::move(archivedName)] = std::move(factory);
}

std::variant<ObjectRef, std::string> TypedStreamUnarchiver::decodeRoot() {
  try {
    std::vector<Value> group;
    readGroup(group);
    if (group.front().kind == Value::Kind::Nil)
      return ObjectRef();
    if (group.front().kind != Value::Kind::Object)
      return std::string("the stream starts with a value that is not an object");
    return group.front().object;
  } catch (const ArchiveDamaged &damage) {
    return std::string(damage.what());
  }
}

void TypedStreamUnarchiver::readGroup(std::vector<Value> &values) {
  const auto &encodings = reader_.readTypeEncodings(reader_.readHead());
  readValues(encodings, values);
  if (generic_) {
    lastEncoding_.clear();
    for (const std::string &part : encodings)
      lastEncoding_ += part;
  }
}

void TypedStreamUnarchiver::readValues(const std::vector<std::string> &encodings, std::vector<Value> &values) {
  values.clear();
  for (const std::string &part : encodings)
    values.push_back(readValue(part));
}

Value TypedStreamUnarchiver::readValue(const std::string &encoding) {
  const NestingGuard nesting(depth_);
  Value value;
  const char type = encoding.front();
  switch (type) {
  case 'c':
  case 'C':
  case 'B': {
    const uint8_t byte = reader_.readBytes(1)[0];
    value.kind = Value::Kind::Integer;
    value.integer = type == 'c' ? static_cast<int8_t>(byte) : byte;
    return value;
  }
  case 's':
  case 'i':
  case 'l':
  case 'q':
  case 'S':
  case 'I':
  case 'L':
  case 'Q':
    value.kind = Value::Kind::Integer;
    value.integer = reader_.readInteger(reader_.readHead(), std::islower(static_cast<unsigned char>(type)));
    return value;
  case 'f':
    value.kind = Value::Kind::Real;
    value.real = reader_.readFloat(reader_.readHead());
    return value;
  case 'd':
    value.kind = Value::Kind::Real;
    value.real = reader_.readDouble(reader_.readHead());
    return value;
  case '+':
  case '%':
  case ':': {
    const int8_t head = reader_.readHead();
    auto text = type == '+' ? reader_.readUnsharedString(head) : reader_.readSharedString(head);
    if (text) {
      value.kind = Value::Kind::String;
      value.text = std::move(*text);
    }
    return value;
  }
  case '*': {
    const int8_t head = reader_.readHead();
    if (head == kNil)
      return value;
    value.kind = Value::Kind::String;
    if (head == kNew) {
      const auto text = reader_.readSharedString(reader_.readHead());
      if (!text)
        throw ArchiveDamaged("a new C string that is nil");
      addEntry({TableEntry::Kind::CString, static_cast<uint32_t>(texts_.size())});
      texts_.push_back(reader_.stretchOf(*text));
      value.text = *text;
      return value;
    }
    const size_t index = reader_.readReferenceIndex(head);
    if (index >= table_.size() || table_[index].kind != TableEntry::Kind::CString)
      throw ArchiveDamaged("a C string reference to something else");
    value.text = reader_.textOf(texts_[table_[index].index]);
    return value;
  }
  case '#':
    if (const auto classIndex = readClass(reader_.readHead())) {
      value.object = archivedClass(*classIndex);
      value.kind = Value::Kind::Object;
    }
    return value;
  case '@':
    value.object = readObject(reader_.readHead());
    value.kind = value.object ? Value::Kind::Object : Value::Kind::Nil;
    return value;
  case '!':
    return value;
  case '[': {
    size_t i = 1;
    size_t count = 0;
    while (i < encoding.size() && std::isdigit(static_cast<unsigned char>(encoding[i]))) {
      count = count * 10 + static_cast<size_t>(encoding[i] - '0');
      if (count > reader_.remaining())
        throw ArchiveDamaged("an array longer than the stream");
      ++i;
    }
    const std::string element = encoding.substr(i, encoding.size() - i - 1);
    value.kind = Value::Kind::Compound;
    if (element == "c" || element == "C") {
      const auto raw = reader_.readBytes(count);
      value.text = std::string_view(reinterpret_cast<const char *>(raw.data()), raw.size());
      return value;
    }
    if (element.empty() || element == "!")
      throw ArchiveDamaged("an array of nothing");
    for (size_t n = 0; n < count; ++n)
      value.elements.push_back(readValue(element));
    return value;
  }
  case '{': {
    const auto equals = encoding.find('=');
    if (equals == std::string::npos)
      throw ArchiveDamaged("a struct without fields");
    value.kind = Value::Kind::Compound;
    for (const std::string &field : splitTypeEncodings(encoding.substr(equals + 1, encoding.size() - equals - 2)))
      value.elements.push_back(readValue(field));
    return value;
  }
  default:
    throw ArchiveDamaged("a type encoding this reader cannot read");
  }
}

std::optional<size_t> TypedStreamUnarchiver::readClass(int8_t head) {
  if (head == kNil)
    return std::nullopt;
  if (head != kNew) {
    const size_t index = reader_.readReferenceIndex(head);
    if (index >= table_.size() || table_[index].kind != TableEntry::Kind::Class)
      throw ArchiveDamaged("a class reference to something else");
    return size_t{table_[index].index};
  }
  struct Literal {
    std::string_view name;
    int64_t version;
  };
  std::vector<Literal> chain;
  while (head == kNew) {
    auto name = reader_.readSharedString(reader_.readHead());
    if (!name)
      throw ArchiveDamaged("a class without a name");
    const int64_t version = reader_.readInteger(reader_.readHead(), true);
    chain.push_back({*name, version});
    if (chain.size() > kMaxNestingDepth)
      throw ArchiveDamaged("class chain too long");
    head = reader_.readHead();
  }
  std::shared_ptr<const ArchivedClass> superclass;
  if (const auto superclassIndex = readClass(head))
    superclass = archivedClass(*superclassIndex);
  // The class and then each new superclass take their numbers in order.
  const size_t first = classes_.size();
  classes_.resize(first + chain.size());
  for (size_t i = chain.size(); i-- > 0;) {
    superclass = std::make_shared<ArchivedClass>(std::string(chain[i].name), chain[i].version, superclass);
    classes_[first + i].archivedClass = superclass;
  }
  for (size_t i = 0; i < chain.size(); ++i)
    addEntry({TableEntry::Kind::Class, static_cast<uint32_t>(first + i)});
  return first;
}

void TypedStreamUnarchiver::addEntry(TableEntry entry) {
  if (table_.size() >= kMostEntries)
    throw ArchiveDamaged("more objects than a transcript can hold");
  table_.push_back(entry);
}

TypedStreamUnarchiver::TableEntry TypedStreamUnarchiver::keep(ObjectRef object) {
  objects_.push_back(std::move(object));
  return {TableEntry::Kind::Object, static_cast<uint32_t>(objects_.size() - 1)};
}

TypedStreamUnarchiver::TableEntry &TypedStreamUnarchiver::referencedEntry(int8_t head) {
  const size_t index = reader_.readReferenceIndex(head);
  if (index >= table_.size())
    throw ArchiveDamaged("reference to an object not read yet");
  return table_[index];
}

TypedStreamUnarchiver::NewObject TypedStreamUnarchiver::beginNewObject() {
  const size_t index = table_.size();
  addEntry({TableEntry::Kind::ObjectInProgress, 0});
  const auto classIndex = readClass(reader_.readHead());
  if (!classIndex)
    throw ArchiveDamaged("an object without a class");
  return {index, *classIndex};
}

ObjectRef TypedStreamUnarchiver::readObject(int8_t head, Purpose purpose) {
  if (head == kNil)
    return nullptr;
  if (head != kNew) {
    TableEntry &entry = referencedEntry(head);
    switch (entry.kind) {
    case TableEntry::Kind::Object:
      return objects_[entry.index];
    case TableEntry::Kind::StringText:
      entry = keep(std::make_shared<StringObject>(std::string(reader_.textOf(texts_[entry.index]))));
      return objects_[entry.index];
    case TableEntry::Kind::Date:
      return std::make_shared<DateObject>(Date(dates_[entry.index]));
    case TableEntry::Kind::ObjectInProgress:
      // A cycle: the program's objects never point back at their owners.
      return nullptr;
    default:
      throw ArchiveDamaged("an object reference to something else");
    }
  }
  const NestingGuard nesting(depth_);
  const NewObject started = beginNewObject();
  ObjectRef object = decodeObjectBody(started.classIndex, purpose);
  if (const KnownClass &known = knownClass(started.classIndex);
      !generic_ && !known.factory && known.kind == FoundationClass::Date) {
    // A transcript dates every message, and the message keeps the time
    // alone: the table keeps the number, not an object for each.
    table_[started.index] = {TableEntry::Kind::Date, static_cast<uint32_t>(dates_.size())};
    dates_.push_back(objectAs<DateObject>(object)->date().timeIntervalSinceReferenceDate());
    return object;
  }
  table_[started.index] = keep(object);
  return object;
}

std::optional<std::string_view> TypedStreamUnarchiver::readStringObjectText(int8_t head, ObjectRef *other) {
  if (head == kNil)
    return std::nullopt;
  if (head != kNew) {
    const TableEntry &entry = referencedEntry(head);
    switch (entry.kind) {
    case TableEntry::Kind::StringText:
      return reader_.textOf(texts_[entry.index]);
    case TableEntry::Kind::Object:
      if (const auto *string = dynamic_cast<const StringObject *>(objects_[entry.index].get()))
        return std::string_view(string->value());
      if (other)
        *other = objects_[entry.index];
      return std::nullopt;
    case TableEntry::Kind::Date:
      if (other)
        *other = std::make_shared<DateObject>(Date(dates_[entry.index]));
      return std::nullopt;
    case TableEntry::Kind::ObjectInProgress:
      return std::nullopt;
    default:
      throw ArchiveDamaged("an object reference to something else");
    }
  }
  const NestingGuard nesting(depth_);
  const NewObject started = beginNewObject();
  if (const KnownClass &known = knownClass(started.classIndex);
      !generic_ && !known.factory && known.kind == FoundationClass::String) {
    Cursor cursor(*this);
    const std::string_view text = cursor.nextString().value_or("");
    cursor.drain(nullptr);
    table_[started.index] = {TableEntry::Kind::StringText, static_cast<uint32_t>(texts_.size())};
    texts_.push_back(reader_.stretchOf(text));
    return text;
  }
  ObjectRef object = decodeObjectBody(started.classIndex, Purpose::AnyObject);
  table_[started.index] = keep(object);
  if (const auto *string = dynamic_cast<const StringObject *>(object.get()))
    return std::string_view(string->value());
  if (other)
    *other = std::move(object);
  return std::nullopt;
}

const TypedStreamUnarchiver::KnownClass &TypedStreamUnarchiver::knownClass(size_t classIndex) {
  // Classes are shared by every object of them, so each is looked up once.
  ClassEntry &entry = classes_[classIndex];
  if (!entry.known) {
    entry.known = KnownClass{FoundationClass::None, nullptr};
    for (const ArchivedClass *c = entry.archivedClass.get(); c; c = c->superclass().get()) {
      if (const auto substitution = substitutions_.find(c->name()); substitution != substitutions_.end()) {
        entry.known->factory = &substitution->second;
        break;
      }
      // Ordered sets came long after typed streams: one is read through
      // like any class unknown here.
      if (const FoundationClass kind = foundationClassNamed(c->name());
          kind != FoundationClass::None && kind != FoundationClass::OrderedSet) {
        entry.known->kind = kind;
        break;
      }
    }
  }
  return *entry.known;
}

ObjectRef TypedStreamUnarchiver::decodeObjectBody(size_t classIndex, Purpose purpose) {
  Cursor cursor(*this);
  if (generic_) {
    std::vector<GenericObject::Field> fields;
    cursor.drain(&fields);
    return std::make_shared<GenericObject>(archivedClass(classIndex), std::move(fields));
  }

  // The class itself, or else the nearest superclass known here; what a
  // subclass stored beyond it is read through.
  if (const KnownClass &known = knownClass(classIndex); known.factory || known.kind != FoundationClass::None) {
    ObjectRef object;
    const FoundationClass kind = known.kind;
    if (known.factory) {
      object = (*known.factory)(cursor);
    } else if (kind == FoundationClass::String) {
      object = std::make_shared<StringObject>(std::string(cursor.nextString().value_or("")));
    } else if (kind == FoundationClass::Array) {
      const int64_t count = cursor.nextInteger().value_or(0);
      if (count < 0 || static_cast<size_t>(count) > reader_.remaining())
        throw ArchiveDamaged("an array count larger than the stream");
      std::vector<ObjectRef> items;
      for (int64_t i = 0; i < count; ++i)
        items.push_back(cursor.nextObject());
      object = std::make_shared<ArrayObject>(std::move(items));
    } else if (kind == FoundationClass::Dictionary && purpose == Purpose::AnyObject) {
      const int64_t count = cursor.nextInteger().value_or(0);
      if (count < 0 || static_cast<size_t>(count) > reader_.remaining())
        throw ArchiveDamaged("a dictionary count larger than the stream");
      std::vector<DictionaryObject::Entry> entries;
      for (int64_t i = 0; i < count; ++i) {
        auto key = cursor.nextObject();
        auto value = cursor.nextObject();
        entries.emplace_back(std::move(key), std::move(value));
      }
      object = std::make_shared<DictionaryObject>(std::move(entries));
    } else if (kind == FoundationClass::Dictionary) {
      const int64_t count = cursor.nextInteger().value_or(0);
      if (count < 0 || static_cast<size_t>(count) > reader_.remaining())
        throw ArchiveDamaged("a dictionary count larger than the stream");
      // Named by strings throughout, as attributes always are, it becomes
      // the attribute set itself; anything else stays a dictionary.
      std::vector<TextAttributes::Entry> named;
      std::vector<DictionaryObject::Entry> other;
      named.reserve(static_cast<size_t>(count));
      for (int64_t i = 0; i < count; ++i) {
        ObjectRef keyObject;
        const auto name = cursor.nextStringObjectText(&keyObject);
        ObjectRef value = cursor.nextObject();
        if (name && other.empty()) {
          named.emplace_back(std::string(*name), std::move(value));
          continue;
        }
        for (auto &[text, earlier] : named)
          other.emplace_back(std::make_shared<StringObject>(std::move(text)), std::move(earlier));
        named.clear();
        other.emplace_back(name ? std::make_shared<StringObject>(std::string(*name)) : std::move(keyObject),
                           std::move(value));
      }
      if (other.empty())
        object = std::make_shared<TextAttributes>(std::move(named));
      else
        object = std::make_shared<DictionaryObject>(std::move(other));
    } else if (kind == FoundationClass::Number) {
      cursor.nextString(); // the value's own type encoding
      const auto value = cursor.next();
      if (value && value->kind == Value::Kind::Integer)
        object = std::make_shared<NumberObject>(value->integer);
      else if (value && value->kind == Value::Kind::Real)
        object = std::make_shared<NumberObject>(value->real);
      else
        object = std::make_shared<InertObject>(archivedClass(classIndex)->name());
    } else if (kind == FoundationClass::Data) {
      const auto bytes = cursor.nextDataObject().value_or(std::span<const uint8_t>{});
      object = std::make_shared<DataObject>(std::vector<uint8_t>(bytes.begin(), bytes.end()));
    } else if (kind == FoundationClass::Date) {
      object = std::make_shared<DateObject>(Date(cursor.nextReal().value_or(0)));
    } else if (kind == FoundationClass::URL) {
      std::shared_ptr<const URLObject> base;
      if (cursor.nextInteger().value_or(0) != 0)
        base = objectAs<URLObject>(cursor.nextObject());
      object = std::make_shared<URLObject>(std::string(cursor.nextStringObjectText().value_or("")), std::move(base));
    } else if (kind == FoundationClass::AttributedString) {
      std::u16string text = utf8ToUtf16(cursor.nextStringObjectText().value_or(""));
      // Scratch lists borrowed from the unarchiver: a transcript holds tens
      // of thousands of these strings.
      std::vector<std::shared_ptr<const TextAttributes>> dictionaries;
      std::vector<AttributedString::RunSpec> runs;
      dictionaries.swap(spareDictionaries_);
      runs.swap(spareRuns_);
      size_t covered = 0;
      while (covered < text.size() && !cursor.atEndOfObject()) {
        const auto number = cursor.nextInteger();
        const auto length = cursor.nextInteger();
        if (!number || !length || *number < 1 || *length < 0)
          throw ArchiveDamaged("a damaged attribute run");
        // Dictionaries are numbered from 1 in order of first use, and
        // stored only at their first use.
        if (static_cast<size_t>(*number) == dictionaries.size() + 1) {
          TextAttributes::appendDistinct(dictionaries, TextAttributes::from(cursor.nextObject(Purpose::Attributes)));
        } else if (static_cast<size_t>(*number) > dictionaries.size()) {
          throw ArchiveDamaged("an attribute run names a dictionary not stored yet");
        }
        runs.push_back({static_cast<size_t>(*length), dictionaries[static_cast<size_t>(*number) - 1]});
        covered += static_cast<size_t>(*length);
      }
      object = std::make_shared<AttributedString>(std::move(text), runs);
      dictionaries.clear();
      runs.clear();
      dictionaries.swap(spareDictionaries_);
      runs.swap(spareRuns_);
    } else if (kind == FoundationClass::Font) {
      const auto serializedName = cursor.nextDataObject();
      auto fontName = serializedName ? stringFromSerializedPropertyList(*serializedName) : std::nullopt;
      const double size = cursor.nextReal().value_or(0);
      object = std::make_shared<Font>(fontName.value_or(""), size);
    } else if (kind == FoundationClass::Color) {
      // The kind byte names the colour space and how many components follow.
      struct Kind {
        ColorSpace space;
        int components;
      };
      static constexpr Kind kKinds[] = {{ColorSpace::CalibratedRGB, 4},
                                        {ColorSpace::DeviceRGB, 4},
                                        {ColorSpace::CalibratedWhite, 2},
                                        {ColorSpace::DeviceWhite, 2},
                                        {ColorSpace::DeviceCMYK, 5}};
      const int64_t kind = cursor.nextInteger().value_or(0);
      if (kind >= 1 && kind <= 5) {
        const Kind &known = kKinds[kind - 1];
        std::vector<double> values;
        values.reserve(static_cast<size_t>(known.components));
        for (int i = 0; i < known.components; ++i)
          values.push_back(cursor.nextReal().value_or(0));
        object = std::make_shared<Color>(known.space, std::move(values));
      } else if (kind == 6) {
        cursor.nextObject(); // catalogue
        cursor.nextObject(); // colour name
        object = objectAs<Color>(cursor.nextObject());
        if (!object)
          object = std::make_shared<Color>(ColorSpace::Named, std::vector<double>{});
      } else {
        object = std::make_shared<Color>(ColorSpace::Unknown, std::vector<double>{});
      }
    } else if (kind == FoundationClass::TextAttachment) {
      std::shared_ptr<const FileWrapper> wrapper;
      while (const auto value = cursor.next())
        if (!wrapper && value->kind == Value::Kind::Object)
          wrapper = objectAs<FileWrapper>(value->object);
      object = std::make_shared<TextAttachment>(std::move(wrapper));
    } else if (kind == FoundationClass::FileWrapper) {
      // Whatever else it stores, the wrapper's file is its serialized form.
      while (const auto value = cursor.next()) {
        const auto bytes = bytesOf(*value);
        if (!object && bytes && bytes->size() >= 4 && std::equal(bytes->begin(), bytes->begin() + 4, "rtfd"))
          object = FileWrapper::fromSerializedRepresentation(*bytes);
      }
      if (!object)
        object = std::make_shared<InertObject>("NSFileWrapper");
    }
    cursor.drain(nullptr);
    return object;
  }
  cursor.drain(nullptr);
  return std::make_shared<InertObject>(archivedClass(classIndex)->name());
}

} // namespace parlova
