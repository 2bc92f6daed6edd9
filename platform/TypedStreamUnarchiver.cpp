#include "platform/TypedStreamUnarchiver.h"

#include <unordered_map>

#include "platform/AttributedString.h"
#include "platform/FileWrapper.h"
#include "platform/FoundationValues.h"
#include "platform/TextAttributes.h"
#include "platform/Unicode.h"

namespace parlova {

using namespace typedstream;
using Value = TypedStreamUnarchiver::Value;

namespace {

constexpr int kMaxDepth = 200;

struct Nesting {
  int &depth;
  explicit Nesting(int &d) : depth(++d) {
    if (depth > kMaxDepth)
      throw ArchiveDamaged("values nested too deeply");
  }
  ~Nesting() { --depth; }
};

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
    return std::make_shared<StringObject>(value.text);
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

std::optional<std::vector<uint8_t>> bytesOf(const Value &value) {
  if (value.kind == Value::Kind::Compound && value.elements.empty())
    return std::vector<uint8_t>(value.text.begin(), value.text.end());
  if (value.kind == Value::Kind::Object)
    if (const auto data = objectAs<DataObject>(value.object))
      return data->bytes();
  return std::nullopt;
}

// NSArchiver's property-list encoding (NSFont's name): a little-endian type
// word, then for strings and data a length and the bytes.
std::optional<std::string> stringFromSerializedPropertyList(const std::vector<uint8_t> &bytes) {
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
  // Group buffers are lent by the unarchiver and given back, so that a
  // stream of many small objects does not allocate one per object.
  explicit Cursor(TypedStreamUnarchiver &archive) : archive_(archive) {
    if (!archive_.spareGroups_.empty()) {
      pending_ = std::move(archive_.spareGroups_.back());
      archive_.spareGroups_.pop_back();
    }
  }
  ~Cursor() override {
    pending_.clear();
    archive_.spareGroups_.push_back(std::move(pending_));
  }
  Cursor(const Cursor &) = delete;
  Cursor &operator=(const Cursor &) = delete;

  bool atEndOfObject() const { return nextPending_ == pending_.size() && archive_.reader_.peekHead() == kEndOfObject; }

  std::optional<Value> next() {
    if (nextPending_ == pending_.size()) {
      if (atEndOfObject())
        return std::nullopt;
      // Most groups hold one value, which needs no buffer.
      const auto &encodings = archive_.reader_.readTypeEncodings(archive_.reader_.readHead());
      if (encodings.size() == 1)
        return archive_.readValue(encodings.front());
      archive_.readValues(encodings, pending_);
      nextPending_ = 0;
    }
    return std::move(pending_[nextPending_++]);
  }

  ObjectRef nextObject() {
    const auto value = next();
    return value && value->kind == Value::Kind::Object ? value->object : nullptr;
  }
  std::optional<int64_t> nextInteger() {
    const auto value = next();
    if (value && value->kind == Value::Kind::Integer)
      return value->integer;
    return std::nullopt;
  }
  std::optional<double> nextReal() {
    const auto value = next();
    if (value && value->kind == Value::Kind::Real)
      return value->real;
    if (value && value->kind == Value::Kind::Integer)
      return static_cast<double>(value->integer);
    return std::nullopt;
  }
  std::optional<std::string> nextString() {
    auto value = next();
    if (value && value->kind == Value::Kind::String)
      return std::move(value->text);
    return std::nullopt;
  }
  // NSArchiver's data object: a length, then an array of that many bytes.
  std::optional<std::vector<uint8_t>> nextDataObject() {
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
    for (; nextPending_ < pending_.size(); ++nextPending_)
      if (fields)
        fields->push_back({"", {asObject(pending_[nextPending_])}});
    std::vector<Value> group;
    while (archive_.reader_.peekHead() != kEndOfObject) {
      archive_.readGroup(group);
      if (fields) {
        GenericObject::Field field{archive_.lastEncoding_, {}};
        for (const Value &value : group)
          field.values.push_back(asObject(value));
        fields->push_back(std::move(field));
      }
    }
    archive_.reader_.readHead();
  }

  // Coder, for the program's own classes: positions only.
  bool allowsKeyedCoding() const override { return false; }
  ObjectRef decodeObjectForKey(std::string_view) override { return nullptr; }
  int32_t decodeInt32ForKey(std::string_view) override { return 0; }
  ObjectRef decodeObject() override { return nextObject(); }
  uint32_t decodeUnsignedInt() override { return static_cast<uint32_t>(nextInteger().value_or(0)); }

private:
  TypedStreamUnarchiver &archive_;
  std::vector<Value> pending_; // the current group's values not read yet
  size_t nextPending_ = 0;
};

std::unique_ptr<TypedStreamUnarchiver> TypedStreamUnarchiver::forData(std::span<const uint8_t> bytes) {
  auto reader = TypedStreamReader::forData(bytes);
  if (!reader)
    return nullptr;
  return std::unique_ptr<TypedStreamUnarchiver>(new TypedStreamUnarchiver(std::move(*reader)));
}

void TypedStreamUnarchiver::setClass(std::string archivedName, ClassFactory factory) {
  substitutions_[std::move(archivedName)] = std::move(factory);
}

std::optional<ObjectRef> TypedStreamUnarchiver::decodeRootObject() {
  try {
    std::vector<Value> group;
    readGroup(group);
    if (group.front().kind == Value::Kind::Nil)
      return ObjectRef();
    if (group.front().kind != Value::Kind::Object)
      return std::nullopt;
    return group.front().object;
  } catch (const ArchiveDamaged &) {
    return std::nullopt;
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
  Nesting nesting(depth_);
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
      table_.push_back({TableEntry::Kind::CString, nullptr, *text});
      value.text = *text;
      return value;
    }
    const size_t index = reader_.readReferenceIndex(head);
    if (index >= table_.size() || table_[index].kind != TableEntry::Kind::CString)
      throw ArchiveDamaged("a C string reference to something else");
    value.text = table_[index].text;
    return value;
  }
  case '#':
    value.object = readClass(reader_.readHead());
    value.kind = value.object ? Value::Kind::Object : Value::Kind::Nil;
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
      value.text.assign(reinterpret_cast<const char *>(raw.data()), raw.size());
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

std::shared_ptr<const ArchivedClass> TypedStreamUnarchiver::readClass(int8_t head) {
  struct Literal {
    std::string name;
    int64_t version;
  };
  std::vector<Literal> chain;
  while (head == kNew) {
    auto name = reader_.readSharedString(reader_.readHead());
    if (!name)
      throw ArchiveDamaged("a class without a name");
    const int64_t version = reader_.readInteger(reader_.readHead(), true);
    chain.push_back({std::move(*name), version});
    if (chain.size() > kMaxDepth)
      throw ArchiveDamaged("class chain too long");
    head = reader_.readHead();
  }
  std::shared_ptr<const ArchivedClass> superclass;
  if (head != kNil) {
    const size_t index = reader_.readReferenceIndex(head);
    if (index >= table_.size() || table_[index].kind != TableEntry::Kind::Class)
      throw ArchiveDamaged("a class reference to something else");
    superclass = std::static_pointer_cast<const ArchivedClass>(table_[index].object);
  }
  std::vector<std::shared_ptr<const ArchivedClass>> made(chain.size());
  for (size_t i = chain.size(); i-- > 0;) {
    superclass = std::make_shared<ArchivedClass>(chain[i].name, chain[i].version, superclass);
    made[i] = superclass;
  }
  // The class and then each new superclass take their numbers in order.
  for (const auto &archivedClass : made)
    table_.push_back({TableEntry::Kind::Class, archivedClass, {}});
  return superclass;
}

ObjectRef TypedStreamUnarchiver::readObject(int8_t head) {
  if (head == kNil)
    return nullptr;
  if (head != kNew) {
    const size_t index = reader_.readReferenceIndex(head);
    if (index >= table_.size())
      throw ArchiveDamaged("reference to an object not read yet");
    switch (table_[index].kind) {
    case TableEntry::Kind::Object:
      return table_[index].object;
    case TableEntry::Kind::ObjectInProgress:
      // A cycle: the program's objects never point back at their owners.
      return nullptr;
    default:
      throw ArchiveDamaged("an object reference to something else");
    }
  }
  Nesting nesting(depth_);
  const size_t index = table_.size();
  table_.push_back({TableEntry::Kind::ObjectInProgress, nullptr, {}});
  const auto archivedClass = readClass(reader_.readHead());
  if (!archivedClass)
    throw ArchiveDamaged("an object without a class");
  ObjectRef object = decodeObjectBody(archivedClass);
  table_[index] = {TableEntry::Kind::Object, object, {}};
  return object;
}

const TypedStreamUnarchiver::KnownClass &TypedStreamUnarchiver::knownClass(const ArchivedClass &archivedClass) {
  using Builtin = KnownClass::Builtin;
  static const std::unordered_map<std::string_view, Builtin> kBuiltins = {
      {"NSString", Builtin::String},
      {"NSMutableString", Builtin::String},
      {"NSArray", Builtin::Array},
      {"NSMutableArray", Builtin::Array},
      {"NSSet", Builtin::Array},
      {"NSMutableSet", Builtin::Array},
      {"NSDictionary", Builtin::Dictionary},
      {"NSMutableDictionary", Builtin::Dictionary},
      {"NSNumber", Builtin::Number},
      {"NSValue", Builtin::Number},
      {"NSData", Builtin::Data},
      {"NSMutableData", Builtin::Data},
      {"NSDate", Builtin::Date},
      {"NSCalendarDate", Builtin::Date},
      {"NSURL", Builtin::URL},
      {"NSAttributedString", Builtin::AttributedString},
      {"NSMutableAttributedString", Builtin::AttributedString},
      {"NSFont", Builtin::Font},
      {"NSColor", Builtin::Color},
      {"NSTextAttachment", Builtin::TextAttachment},
      {"NSFileWrapper", Builtin::FileWrapper}};
  // Classes are shared by every object of them, so each is looked up once.
  const auto [it, inserted] = knownClasses_.try_emplace(&archivedClass);
  if (inserted) {
    for (const ArchivedClass *c = &archivedClass; c; c = c->superclass().get()) {
      if (const auto substitution = substitutions_.find(c->name()); substitution != substitutions_.end()) {
        it->second = {Builtin::Substitution, &substitution->second};
        break;
      }
      if (const auto builtin = kBuiltins.find(c->name()); builtin != kBuiltins.end()) {
        it->second = {builtin->second, nullptr};
        break;
      }
    }
  }
  return it->second;
}

ObjectRef TypedStreamUnarchiver::decodeObjectBody(const std::shared_ptr<const ArchivedClass> &archivedClass) {
  Cursor cursor(*this);
  if (generic_) {
    std::vector<GenericObject::Field> fields;
    cursor.drain(&fields);
    return std::make_shared<GenericObject>(archivedClass, std::move(fields));
  }

  // The class itself, or else the nearest superclass known here; what a
  // subclass stored beyond it is read through.
  using Builtin = KnownClass::Builtin;
  if (const KnownClass &known = knownClass(*archivedClass); known.builtin != Builtin::None) {
    ObjectRef object;
    const Builtin kind = known.builtin;
    if (kind == Builtin::Substitution) {
      object = (*known.factory)(cursor);
    } else if (kind == Builtin::String) {
      object = std::make_shared<StringObject>(cursor.nextString().value_or(""));
    } else if (kind == Builtin::Array) {
      const int64_t count = cursor.nextInteger().value_or(0);
      if (count < 0 || static_cast<size_t>(count) > reader_.remaining())
        throw ArchiveDamaged("an array count larger than the stream");
      std::vector<ObjectRef> items;
      for (int64_t i = 0; i < count; ++i)
        items.push_back(cursor.nextObject());
      object = std::make_shared<ArrayObject>(std::move(items));
    } else if (kind == Builtin::Dictionary) {
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
    } else if (kind == Builtin::Number) {
      cursor.nextString(); // the value's own type encoding
      const auto value = cursor.next();
      if (value && value->kind == Value::Kind::Integer)
        object = std::make_shared<NumberObject>(value->integer);
      else if (value && value->kind == Value::Kind::Real)
        object = std::make_shared<NumberObject>(value->real);
      else
        object = std::make_shared<InertObject>(archivedClass->name());
    } else if (kind == Builtin::Data) {
      object = std::make_shared<DataObject>(cursor.nextDataObject().value_or(std::vector<uint8_t>{}));
    } else if (kind == Builtin::Date) {
      object = std::make_shared<DateObject>(Date(cursor.nextReal().value_or(0)));
    } else if (kind == Builtin::URL) {
      std::shared_ptr<const URLObject> base;
      if (cursor.nextInteger().value_or(0) != 0)
        base = objectAs<URLObject>(cursor.nextObject());
      object = std::make_shared<URLObject>(stringValueOf(cursor.nextObject()), std::move(base));
    } else if (kind == Builtin::AttributedString) {
      const std::u16string text = utf8ToUtf16(stringValueOf(cursor.nextObject()));
      std::vector<std::shared_ptr<const TextAttributes>> dictionaries;
      std::vector<AttributedString::RunSpec> runs;
      size_t covered = 0;
      while (covered < text.size() && !cursor.atEndOfObject()) {
        const auto number = cursor.nextInteger();
        const auto length = cursor.nextInteger();
        if (!number || !length || *number < 1 || *length < 0)
          throw ArchiveDamaged("a damaged attribute run");
        // Dictionaries are numbered from 1 in order of first use, and
        // stored only at their first use.
        if (static_cast<size_t>(*number) == dictionaries.size() + 1) {
          std::vector<TextAttributes::Entry> entries;
          if (const auto dictionary = objectAs<DictionaryObject>(cursor.nextObject()))
            for (const auto &[key, value] : dictionary->entries())
              if (const auto keyText = objectAs<StringObject>(key))
                entries.emplace_back(keyText->value(), value);
          dictionaries.push_back(std::make_shared<const TextAttributes>(std::move(entries)));
        } else if (static_cast<size_t>(*number) > dictionaries.size()) {
          throw ArchiveDamaged("an attribute run names a dictionary not stored yet");
        }
        runs.push_back({static_cast<size_t>(*length), dictionaries[static_cast<size_t>(*number) - 1]});
        covered += static_cast<size_t>(*length);
      }
      object = std::make_shared<AttributedString>(text, runs);
    } else if (kind == Builtin::Font) {
      const auto serializedName = cursor.nextDataObject();
      auto fontName = serializedName ? stringFromSerializedPropertyList(*serializedName) : std::nullopt;
      const double size = cursor.nextReal().value_or(0);
      object = std::make_shared<Font>(fontName.value_or(""), size);
    } else if (kind == Builtin::Color) {
      // The kind byte names the colour space and how many components follow.
      struct Kind {
        ColorSpace space;
        int components;
      };
      static const std::map<int64_t, Kind> kKinds = {{1, {ColorSpace::CalibratedRGB, 4}},
                                                     {2, {ColorSpace::DeviceRGB, 4}},
                                                     {3, {ColorSpace::CalibratedWhite, 2}},
                                                     {4, {ColorSpace::DeviceWhite, 2}},
                                                     {5, {ColorSpace::DeviceCMYK, 5}}};
      const int64_t kind = cursor.nextInteger().value_or(0);
      if (const auto known = kKinds.find(kind); known != kKinds.end()) {
        std::vector<double> values;
        for (int i = 0; i < known->second.components; ++i)
          values.push_back(cursor.nextReal().value_or(0));
        object = std::make_shared<Color>(known->second.space, std::move(values));
      } else if (kind == 6) {
        cursor.nextObject(); // catalogue
        cursor.nextObject(); // colour name
        object = objectAs<Color>(cursor.nextObject());
        if (!object)
          object = std::make_shared<Color>(ColorSpace::Named, std::vector<double>{});
      } else {
        object = std::make_shared<Color>(ColorSpace::Unknown, std::vector<double>{});
      }
    } else if (kind == Builtin::TextAttachment) {
      std::shared_ptr<const FileWrapper> wrapper;
      while (const auto value = cursor.next())
        if (!wrapper && value->kind == Value::Kind::Object)
          wrapper = objectAs<FileWrapper>(value->object);
      object = std::make_shared<TextAttachment>(std::move(wrapper));
    } else if (kind == Builtin::FileWrapper) {
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
  return std::make_shared<InertObject>(archivedClass->name());
}

} // namespace parlova
