#include "platform/KeyedUnarchiver.h"

#include "platform/PropertyList.h"

#include "platform/AttributedString.h"
#include "platform/FileWrapper.h"
#include "platform/FoundationValues.h"
#include "platform/GenericObject.h"
#include "platform/TextAttributes.h"
#include "platform/Unicode.h"

namespace parlova {
namespace {

using Ref = BinaryPlistView::Ref;
using Type = BinaryPlistView::Type;

// Deep enough for any real transcript (message, text, attributes, font...),
// shallow enough that hostile nesting cannot exhaust the stack.
constexpr int kMaxDepth = 200;

class KeyedObjectCoder final : public Coder {
public:
  KeyedObjectCoder(KeyedUnarchiver &archive, const BinaryPlistView::Entry &object)
      : archive_(archive), plist_(archive.plist()), object_(object) {}

  bool allowsKeyedCoding() const override { return true; }

  ObjectRef decodeObjectForKey(std::string_view key) override { return archive_.decodeValue(item(key)); }

  int32_t decodeInt32ForKey(std::string_view key) override {
    const auto ref = item(key);
    if (!ref)
      return 0;
    if (const auto integer = plist_.integer(*ref))
      return static_cast<int32_t>(static_cast<uint64_t>(*integer));
    if (const auto real = plist_.real(*ref)) {
      if (!(*real > -2147483649.0 && *real < 2147483648.0))
        return 0;
      return static_cast<int32_t>(*real);
    }
    if (const auto boolean = plist_.boolean(*ref))
      return *boolean ? 1 : 0;
    return 0;
  }

  // A keyed archive has no stream order to read from.
  ObjectRef decodeObject() override { return nullptr; }
  uint32_t decodeUnsignedInt() override { return 0; }

  double decodeDoubleForKey(std::string_view key) {
    const auto ref = item(key);
    if (!ref)
      return 0;
    if (const auto real = plist_.real(*ref))
      return *real;
    if (const auto integer = plist_.integer(*ref))
      return static_cast<double>(*integer);
    return 0;
  }

  std::vector<uint8_t> decodeBytesForKey(std::string_view key) {
    const auto ref = item(key);
    if (!ref)
      return {};
    if (const auto bytes = plist_.data(*ref))
      return std::vector<uint8_t>(bytes->begin(), bytes->end());
    if (const auto data = objectAs<DataObject>(archive_.decodeValue(ref)))
      return data->bytes();
    return {};
  }

private:
  std::optional<Ref> item(std::string_view key) const { return plist_.valueForKey(object_, key); }

  KeyedUnarchiver &archive_;
  const BinaryPlistView &plist_;
  BinaryPlistView::Entry object_;
};

std::vector<ObjectRef> itemsOf(const ObjectRef &object) {
  if (const auto array = objectAs<ArrayObject>(object))
    return array->items();
  return {};
}

std::shared_ptr<const TextAttributes> attributesFrom(const ObjectRef &object) {
  std::vector<TextAttributes::Entry> entries;
  if (const auto dictionary = objectAs<DictionaryObject>(object)) {
    for (const auto &[key, value] : dictionary->entries())
      if (const auto name = objectAs<StringObject>(key))
        entries.emplace_back(name->value(), value);
  }
  return std::make_shared<const TextAttributes>(std::move(entries));
}

ObjectRef decodeAttributedString(KeyedObjectCoder &coder) {
  const ObjectRef stringObject = coder.decodeObjectForKey("NSString");
  std::u16string text;
  if (const auto string = objectAs<StringObject>(stringObject))
    text = utf8ToUtf16(string->value());
  else if (const auto attributed = objectAs<AttributedString>(stringObject))
    text = attributed->string();

  const ObjectRef attributesObject = coder.decodeObjectForKey("NSAttributes");
  const std::vector<uint8_t> info = coder.decodeBytesForKey("NSAttributeInfo");
  if (info.empty())
    return std::make_shared<AttributedString>(std::move(text),
                                              std::vector<AttributedString::RunSpec>{{text.size(), attributesFrom(attributesObject)}});

  std::vector<std::shared_ptr<const TextAttributes>> dictionaries;
  for (const ObjectRef &item : itemsOf(attributesObject))
    dictionaries.push_back(attributesFrom(item));
  if (dictionaries.empty())
    dictionaries.push_back(attributesFrom(attributesObject));

  // Pairs of base-128 numbers, low seven bits first: run length, then the
  // index of its attribute dictionary.
  std::vector<AttributedString::RunSpec> runs;
  size_t pos = 0;
  const auto next = [&]() -> std::optional<uint64_t> {
    uint64_t value = 0;
    for (int shift = 0; pos < info.size() && shift < 64; shift += 7) {
      const uint8_t byte = info[pos++];
      value |= static_cast<uint64_t>(byte & 0x7F) << shift;
      if (!(byte & 0x80))
        return value;
    }
    return std::nullopt;
  };
  while (pos < info.size()) {
    const auto length = next();
    const auto index = next();
    if (!length || !index)
      throw ArchiveDamaged("attribute runs are cut short");
    if (*index >= dictionaries.size())
      throw ArchiveDamaged("attribute run names a missing dictionary");
    runs.push_back({static_cast<size_t>(std::min<uint64_t>(*length, text.size())), dictionaries[*index]});
  }
  return std::make_shared<AttributedString>(std::move(text), runs);
}

ObjectRef decodeColor(KeyedObjectCoder &coder) {
  const int32_t space = coder.decodeInt32ForKey("NSColorSpace");
  const auto components = [&](std::string_view key) {
    const auto bytes = coder.decodeBytesForKey(key);
    return parseColorComponents(std::string_view(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
  };
  switch (space) {
  case 1:
    return std::make_shared<Color>(ColorSpace::CalibratedRGB, components("NSRGB"));
  case 2:
    return std::make_shared<Color>(ColorSpace::DeviceRGB, components("NSRGB"));
  case 3:
    return std::make_shared<Color>(ColorSpace::CalibratedWhite, components("NSWhite"));
  case 4:
    return std::make_shared<Color>(ColorSpace::DeviceWhite, components("NSWhite"));
  case 5:
    return std::make_shared<Color>(ColorSpace::DeviceCMYK, components("NSCMYK"));
  case 6:
    // A catalogue colour carries its resolved colour along under "NSColor".
    if (auto resolved = objectAs<Color>(coder.decodeObjectForKey("NSColor")))
      return resolved;
    return std::make_shared<Color>(ColorSpace::Named, std::vector<double>{});
  case 7:
    return std::make_shared<Color>(ColorSpace::Pattern, std::vector<double>{});
  default:
    return std::make_shared<Color>(ColorSpace::Unknown, std::vector<double>{});
  }
}

} // namespace

KeyedUnarchiver::KeyedUnarchiver(std::vector<uint8_t> converted, BinaryPlistView view, Ref objects, Ref top)
    : converted_(std::move(converted)), view_(view), objects_(view_.describe(objects)), top_(top),
      decoded_(objects_.length), state_(objects_.length, State::NotYet) {}

std::unique_ptr<KeyedUnarchiver> KeyedUnarchiver::forData(std::span<const uint8_t> bytes) {
  // XML archives (rare, and written by hand more often than by a Mac) are
  // turned into the binary form once; binary ones are read where they lie.
  std::vector<uint8_t> converted;
  if (!BinaryPlistView::open(bytes)) {
    const PlistPtr parsed = parsePropertyList(bytes);
    if (!parsed)
      return nullptr;
    converted = serializePropertyList(parsed.get(), PlistFormat::Binary);
    bytes = converted;
  }
  const auto view = BinaryPlistView::open(bytes);
  if (!view || view->type(view->top()) != Type::Dictionary)
    return nullptr;
  const auto objects = view->valueForKey(view->top(), "$objects");
  const auto top = view->valueForKey(view->top(), "$top");
  if (!objects || view->type(*objects) != Type::Array || !top || view->type(*top) != Type::Dictionary)
    return nullptr;
  return std::unique_ptr<KeyedUnarchiver>(new KeyedUnarchiver(std::move(converted), *view, *objects, *top));
}

void KeyedUnarchiver::setClass(std::string archivedName, ClassFactory factory) {
  substitutions_[std::move(archivedName)] = std::move(factory);
}

std::optional<ObjectRef> KeyedUnarchiver::decodeTopLevelObjectForKey(std::string_view key) {
  try {
    return decodeValue(view_.valueForKey(top_, key));
  } catch (const ArchiveDamaged &) {
    return std::nullopt;
  }
}

// Binary archives hold real UIDs; XML ones spell each as {CF$UID = n}.
std::optional<uint64_t> KeyedUnarchiver::uidOf(const BinaryPlistView::Entry &entry) const {
  if (entry.type == Type::Uid)
    return view_.uid(entry);
  if (entry.type == Type::Dictionary && entry.length == 1 && view_.stringEquals(view_.keyAt(entry, 0), "CF$UID"))
    if (const auto uid = view_.integer(view_.valueAt(entry, 0)))
      return static_cast<uint64_t>(*uid);
  return std::nullopt;
}

ObjectRef KeyedUnarchiver::decodeValue(std::optional<Ref> ref) {
  if (!ref)
    return nullptr;
  struct Nesting {
    int &depth;
    explicit Nesting(int &d) : depth(++d) {}
    ~Nesting() { --depth; }
  } nesting(depth_);
  if (depth_ > kMaxDepth)
    throw ArchiveDamaged("objects nested too deeply");
  // Values may be shared inline; a few levels of sharing would otherwise
  // multiply the work beyond any real archive's.
  if (++work_ > 16 * view_.objectCount() + 4096)
    throw ArchiveDamaged("values shared too often");

  const BinaryPlistView::Entry entry = view_.describe(*ref);
  if (const auto uid = uidOf(entry))
    return decodeReference(*uid);
  switch (entry.type) {
  case Type::String:
    return std::make_shared<StringObject>(view_.string(entry).value_or(""));
  case Type::Integer:
    return std::make_shared<NumberObject>(*view_.integer(entry));
  case Type::Real:
    return std::make_shared<NumberObject>(*view_.real(entry));
  case Type::Boolean:
    return std::make_shared<NumberObject>(*view_.boolean(entry));
  case Type::Data: {
    const auto bytes = *view_.data(entry);
    return std::make_shared<DataObject>(std::vector<uint8_t>(bytes.begin(), bytes.end()));
  }
  case Type::Date:
    return std::make_shared<DateObject>(Date(*view_.real(entry)));
  case Type::Array:
  case Type::Set: {
    std::vector<ObjectRef> items;
    items.reserve(entry.length);
    for (uint64_t i = 0; i < entry.length; ++i)
      items.push_back(decodeValue(view_.element(entry, i)));
    return std::make_shared<ArrayObject>(std::move(items));
  }
  case Type::Dictionary: {
    if (const auto classRef = view_.valueForKey(entry, "$class"))
      return decodeInstance(entry, *classRef);
    std::vector<DictionaryObject::Entry> entries;
    for (uint64_t i = 0; i < entry.length; ++i)
      entries.emplace_back(std::make_shared<StringObject>(view_.string(view_.keyAt(entry, i)).value_or("")),
                           decodeValue(view_.valueAt(entry, i)));
    return std::make_shared<DictionaryObject>(std::move(entries));
  }
  default:
    return nullptr;
  }
}

ObjectRef KeyedUnarchiver::decodeReference(uint64_t uid) {
  if (uid >= decoded_.size())
    throw ArchiveDamaged("reference to an object that is not there");
  switch (state_[uid]) {
  case State::Done:
    return decoded_[uid];
  case State::InProgress:
    // A cycle: the object is still being made, and the program's objects
    // never need to point back at their owners.
    return nullptr;
  case State::NotYet:
    break;
  }
  state_[uid] = State::InProgress;
  const Ref ref = view_.element(objects_, uid);
  ObjectRef object;
  if (!(uid == 0 && view_.stringEquals(ref, "$null")))
    object = decodeValue(ref);
  decoded_[uid] = object;
  state_[uid] = State::Done;
  return object;
}

ObjectRef KeyedUnarchiver::decodeInstance(const BinaryPlistView::Entry &objectDictionary, Ref classRef) {
  const auto classUid = uidOf(view_.describe(classRef));
  if (!classUid)
    throw ArchiveDamaged("object without a class reference");
  const Ref classRefTarget = view_.element(objects_, *classUid);
  const BinaryPlistView::Entry classInfo = view_.describe(classRefTarget);
  if (*classUid >= decoded_.size() || classInfo.type != Type::Dictionary)
    throw ArchiveDamaged("class reference to something that is not a class");

  // The class itself first, then its superclasses, as NSKeyedUnarchiver
  // falls back along the chain for classes it cannot find. Every object of
  // a class shares its description, so the chain is read once.
  auto [cached, inserted] = classChains_.try_emplace(*classUid);
  std::vector<std::string> &chain = cached->second;
  if (inserted) {
    if (const auto name = view_.valueForKey(classInfo, "$classname"))
      if (auto text = view_.string(*name))
        chain.push_back(std::move(*text));
    if (const auto classes = view_.valueForKey(classInfo, "$classes")) {
      const BinaryPlistView::Entry list = view_.describe(*classes);
      for (uint64_t i = 0; list.type == Type::Array && i < list.length; ++i)
        if (auto name = view_.string(view_.element(list, i)); name && (chain.empty() || chain.back() != *name))
          chain.push_back(std::move(*name));
    }
  }
  if (generic_)
    return decodeGenerically(chain, objectDictionary);
  for (const std::string &name : chain) {
    bool known = false;
    ObjectRef object = decodeKnownClass(name, objectDictionary, known);
    if (known)
      return object;
  }
  return std::make_shared<InertObject>(chain.empty() ? std::string("?") : chain.front());
}

ObjectRef KeyedUnarchiver::decodeGenerically(const std::vector<std::string> &chain,
                                             const BinaryPlistView::Entry &objectDictionary) {
  std::shared_ptr<const ArchivedClass> archivedClass;
  for (size_t i = chain.size(); i-- > 0;)
    archivedClass = std::make_shared<ArchivedClass>(chain[i], std::nullopt, archivedClass);
  std::vector<GenericObject::Field> fields;
  for (uint64_t i = 0; i < objectDictionary.length; ++i) {
    const std::string label = view_.string(view_.keyAt(objectDictionary, i)).value_or("");
    if (label != "$class")
      fields.push_back({label, {decodeValue(view_.valueAt(objectDictionary, i))}});
  }
  return std::make_shared<GenericObject>(archivedClass, std::move(fields));
}

ObjectRef KeyedUnarchiver::decodeKnownClass(const std::string &name, const BinaryPlistView::Entry &objectDictionary,
                                            bool &known) {
  known = true;
  KeyedObjectCoder coder(*this, objectDictionary);
  if (const auto substitution = substitutions_.find(name); substitution != substitutions_.end())
    return substitution->second(coder);

  if (name == "NSString" || name == "NSMutableString") {
    if (const auto string = objectAs<StringObject>(coder.decodeObjectForKey("NS.string")))
      return string;
    const auto bytes = coder.decodeBytesForKey("NS.bytes");
    return std::make_shared<StringObject>(std::string(bytes.begin(), bytes.end()));
  }
  if (name == "NSArray" || name == "NSMutableArray" || name == "NSSet" || name == "NSMutableSet" ||
      name == "NSOrderedSet" || name == "NSMutableOrderedSet") {
    return std::make_shared<ArrayObject>(itemsOf(coder.decodeObjectForKey("NS.objects")));
  }
  if (name == "NSDictionary" || name == "NSMutableDictionary") {
    const auto keys = itemsOf(coder.decodeObjectForKey("NS.keys"));
    const auto values = itemsOf(coder.decodeObjectForKey("NS.objects"));
    std::vector<DictionaryObject::Entry> entries;
    for (size_t i = 0; i < keys.size() && i < values.size(); ++i)
      entries.emplace_back(keys[i], values[i]);
    return std::make_shared<DictionaryObject>(std::move(entries));
  }
  if (name == "NSData" || name == "NSMutableData") {
    auto bytes = coder.decodeBytesForKey("NS.data");
    if (bytes.empty())
      bytes = coder.decodeBytesForKey("NS.bytes");
    return std::make_shared<DataObject>(std::move(bytes));
  }
  if (name == "NSDate" || name == "NSCalendarDate")
    return std::make_shared<DateObject>(Date(coder.decodeDoubleForKey("NS.time")));
  if (name == "NSURL") {
    return std::make_shared<URLObject>(stringValueOf(coder.decodeObjectForKey("NS.relative")),
                                       objectAs<URLObject>(coder.decodeObjectForKey("NS.base")));
  }
  if (name == "NSAttributedString" || name == "NSMutableAttributedString")
    return decodeAttributedString(coder);
  if (name == "NSFont")
    return std::make_shared<Font>(stringValueOf(coder.decodeObjectForKey("NSName")), coder.decodeDoubleForKey("NSSize"),
                                  coder.decodeInt32ForKey("NSfFlags"));
  if (name == "NSColor")
    return decodeColor(coder);
  if (name == "NSTextAttachment")
    return std::make_shared<TextAttachment>(objectAs<FileWrapper>(coder.decodeObjectForKey("NSFileWrapper")));
  if (name == "NSFileWrapper") {
    const auto serialized = coder.decodeBytesForKey("NSFileWrapperData");
    return FileWrapper::fromSerializedRepresentation(serialized);
  }
  known = false;
  return nullptr;
}

} // namespace parlova
