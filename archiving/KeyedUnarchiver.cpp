#include "archiving/KeyedUnarchiver.h"

#include <algorithm>

#include "foundation/PropertyList.h"

#include "foundation/AttributedString.h"
#include "foundation/FileWrapper.h"
#include "foundation/FoundationValues.h"
#include "foundation/GenericObject.h"
#include "foundation/TextAttributes.h"
#include "foundation/Unicode.h"

namespace parlova {
namespace {

using Ref = BinaryPlistView::Ref;
using Type = BinaryPlistView::Type;

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
  std::string decodeStringObject() override { return {}; }

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

  // Stored bytes: in the archive itself, or in a data object held here
  // along with them.
  struct Bytes {
    std::span<const uint8_t> bytes;
    ObjectRef holder;
  };
  Bytes decodeBytesForKey(std::string_view key) {
    const auto ref = item(key);
    if (!ref)
      return {};
    if (const auto bytes = plist_.data(*ref))
      return {*bytes, nullptr};
    ObjectRef object = archive_.decodeValue(ref);
    if (const auto *data = dynamic_cast<const DataObject *>(object.get()))
      return {data->bytes(), std::move(object)};
    return {};
  }

  // The text under `key` when it decodes to a string.
  std::optional<std::string> decodeTextForKey(std::string_view key) { return archive_.decodeText(item(key)); }
  std::vector<ObjectRef> decodeItemsForKey(std::string_view key) { return archive_.decodeItems(item(key)); }
  std::shared_ptr<const TextAttributes> decodeAttributesForKey(std::string_view key) {
    return archive_.decodeAttributes(item(key));
  }
  std::vector<std::shared_ptr<const TextAttributes>> decodeAttributeListForKey(std::string_view key) {
    return archive_.decodeAttributeList(item(key));
  }

private:
  std::optional<Ref> item(std::string_view key) const { return plist_.valueForKey(object_, key); }

  KeyedUnarchiver &archive_;
  const BinaryPlistView &plist_;
  BinaryPlistView::Entry object_;
};

ObjectRef decodeAttributedString(KeyedObjectCoder &coder) {
  std::u16string text;
  if (const auto plain = coder.decodeTextForKey("NSString"))
    text = utf8ToUtf16(*plain);
  else if (const auto attributed = objectAs<AttributedString>(coder.decodeObjectForKey("NSString")))
    text = attributed->string();

  const KeyedObjectCoder::Bytes info = coder.decodeBytesForKey("NSAttributeInfo");
  if (info.bytes.empty()) {
    const size_t length = text.size();
    return std::make_shared<AttributedString>(
        std::move(text), std::vector<AttributedString::RunSpec>{{length, coder.decodeAttributesForKey("NSAttributes")}});
  }

  auto dictionaries = coder.decodeAttributeListForKey("NSAttributes");
  if (dictionaries.empty())
    dictionaries.push_back(coder.decodeAttributesForKey("NSAttributes"));

  // Pairs of base-128 numbers, low seven bits first: run length, then the
  // index of its attribute dictionary.
  std::vector<AttributedString::RunSpec> runs;
  size_t pos = 0;
  const auto next = [&]() -> std::optional<uint64_t> {
    uint64_t value = 0;
    for (int shift = 0; pos < info.bytes.size() && shift < 64; shift += 7) {
      const uint8_t byte = info.bytes[pos++];
      value |= static_cast<uint64_t>(byte & 0x7F) << shift;
      if (!(byte & 0x80))
        return value;
    }
    return std::nullopt;
  };
  while (pos < info.bytes.size()) {
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
    const auto stored = coder.decodeBytesForKey(key);
    return parseColorComponents(
        std::string_view(reinterpret_cast<const char *>(stored.bytes.data()), stored.bytes.size()));
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

std::variant<std::unique_ptr<KeyedUnarchiver>, std::string> KeyedUnarchiver::forData(std::span<const uint8_t> bytes) {
  // XML archives (rare, and written by hand more often than by a Mac) are
  // turned into the binary form once; binary ones are read where they lie.
  std::vector<uint8_t> converted;
  if (!BinaryPlistView::open(bytes)) {
    const PlistPtr parsed = parsePropertyList(bytes);
    if (!parsed)
      return std::string("not a property list, binary or XML");
    converted = serializePropertyList(parsed.get(), PlistFormat::Binary);
    bytes = converted;
  }
  const auto view = BinaryPlistView::open(bytes);
  if (!view)
    return std::string("a property list that cannot be read back");
  if (view->type(view->top()) != Type::Dictionary)
    return std::string("not a keyed archive: the property list is not a dictionary");
  const auto objects = view->valueForKey(view->top(), "$objects");
  if (!objects || view->type(*objects) != Type::Array)
    return std::string("not a keyed archive: it has no $objects array");
  const auto top = view->valueForKey(view->top(), "$top");
  if (!top || view->type(*top) != Type::Dictionary)
    return std::string("not a keyed archive: it has no $top dictionary");
  return std::unique_ptr<KeyedUnarchiver>(new KeyedUnarchiver(std::move(converted), *view, *objects, *top));
}

void KeyedUnarchiver::setClass(std::string archivedName, ClassFactory factory) {
  substitutions_[std::move(archivedName)] = std::move(factory);
}

std::variant<ObjectRef, std::string> KeyedUnarchiver::decodeTopLevelObjectForKey(std::string_view key) {
  try {
    return decodeValue(view_.valueForKey(top_, key));
  } catch (const ArchiveDamaged &damage) {
    return std::string(damage.what());
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
  const NestingGuard nesting(depth_);
  countWork();

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
    throw ArchiveDamaged("a reference to object " + std::to_string(uid) + ", past the end of the table of " +
                         std::to_string(decoded_.size()) + " objects");
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

void KeyedUnarchiver::countWork() {
  // Values may be shared inline; a few levels of sharing would otherwise
  // multiply the work beyond any real archive's.
  if (++work_ > 16 * view_.objectCount() + 4096)
    throw ArchiveDamaged("values shared too often");
}

const KeyedUnarchiver::ClassInfo &KeyedUnarchiver::classOf(Ref classRef) {
  const auto classUid = uidOf(view_.describe(classRef));
  if (!classUid)
    throw ArchiveDamaged("object without a class reference");
  // Every object of a class shares its description, so it is read once.
  if (const auto known = classes_.find(*classUid); known != classes_.end())
    return known->second;
  const Ref classRefTarget = view_.element(objects_, *classUid);
  const BinaryPlistView::Entry classInfo = view_.describe(classRefTarget);
  if (*classUid >= decoded_.size() || classInfo.type != Type::Dictionary)
    throw ArchiveDamaged("a class reference to object " + std::to_string(*classUid) + ", which is not a class");

  // The class itself first, then its superclasses, as NSKeyedUnarchiver
  // falls back along the chain for classes it cannot find.
  ClassInfo info;
  if (const auto name = view_.valueForKey(classInfo, "$classname"))
    if (auto text = view_.string(*name))
      info.chain.push_back(std::move(*text));
  if (const auto classes = view_.valueForKey(classInfo, "$classes")) {
    const BinaryPlistView::Entry list = view_.describe(*classes);
    for (uint64_t i = 0; list.type == Type::Array && i < list.length; ++i)
      if (auto name = view_.string(view_.element(list, i)); name && (info.chain.empty() || info.chain.back() != *name))
        info.chain.push_back(std::move(*name));
  }
  for (const std::string &name : info.chain) {
    if (const auto substitution = substitutions_.find(name); substitution != substitutions_.end()) {
      info.factory = &substitution->second;
      break;
    }
    // Numbers are stored as plain values here; an NSNumber object is read
    // through like any class unknown here.
    FoundationClass kind = foundationClassNamed(name);
    if (kind == FoundationClass::OrderedSet)
      kind = FoundationClass::Array;
    if (kind != FoundationClass::None && kind != FoundationClass::Number) {
      info.kind = kind;
      break;
    }
  }
  return classes_.emplace(*classUid, std::move(info)).first->second;
}

ObjectRef KeyedUnarchiver::decodeInstance(const BinaryPlistView::Entry &objectDictionary, Ref classRef) {
  const ClassInfo &info = classOf(classRef);
  if (generic_)
    return decodeGenerically(info.chain, objectDictionary);
  if (!info.factory && info.kind == FoundationClass::None)
    return std::make_shared<InertObject>(info.chain.empty() ? std::string("?") : info.chain.front());
  return decodeKnownClass(info, objectDictionary);
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

ObjectRef KeyedUnarchiver::decodeKnownClass(const ClassInfo &info, const BinaryPlistView::Entry &objectDictionary) {
  KeyedObjectCoder coder(*this, objectDictionary);
  if (info.factory)
    return (*info.factory)(coder);
  switch (info.kind) {
  case FoundationClass::None:
  case FoundationClass::OrderedSet:
  case FoundationClass::Number:
    break;
  case FoundationClass::String: {
    if (auto string = objectAs<StringObject>(coder.decodeObjectForKey("NS.string")))
      return string;
    const auto stored = coder.decodeBytesForKey("NS.bytes");
    return std::make_shared<StringObject>(std::string(stored.bytes.begin(), stored.bytes.end()));
  }
  case FoundationClass::Array:
    return std::make_shared<ArrayObject>(coder.decodeItemsForKey("NS.objects"));
  case FoundationClass::Dictionary: {
    const auto keys = coder.decodeItemsForKey("NS.keys");
    const auto values = coder.decodeItemsForKey("NS.objects");
    std::vector<DictionaryObject::Entry> entries;
    for (size_t i = 0; i < keys.size() && i < values.size(); ++i)
      entries.emplace_back(keys[i], values[i]);
    return std::make_shared<DictionaryObject>(std::move(entries));
  }
  case FoundationClass::Data: {
    auto stored = coder.decodeBytesForKey("NS.data");
    if (stored.bytes.empty())
      stored = coder.decodeBytesForKey("NS.bytes");
    return std::make_shared<DataObject>(std::vector<uint8_t>(stored.bytes.begin(), stored.bytes.end()));
  }
  case FoundationClass::Date:
    return std::make_shared<DateObject>(Date(coder.decodeDoubleForKey("NS.time")));
  case FoundationClass::URL:
    return std::make_shared<URLObject>(coder.decodeTextForKey("NS.relative").value_or(""),
                                       objectAs<URLObject>(coder.decodeObjectForKey("NS.base")));
  case FoundationClass::AttributedString:
    return decodeAttributedString(coder);
  case FoundationClass::Font:
    return std::make_shared<Font>(coder.decodeTextForKey("NSName").value_or(""), coder.decodeDoubleForKey("NSSize"),
                                  coder.decodeInt32ForKey("NSfFlags"));
  case FoundationClass::Color:
    return decodeColor(coder);
  case FoundationClass::TextAttachment:
    return std::make_shared<TextAttachment>(objectAs<FileWrapper>(coder.decodeObjectForKey("NSFileWrapper")));
  case FoundationClass::FileWrapper:
    return FileWrapper::fromSerializedRepresentation(coder.decodeBytesForKey("NSFileWrapperData").bytes);
  }
  return nullptr;
}

std::optional<BinaryPlistView::Entry> KeyedUnarchiver::pendingInstanceOf(std::optional<Ref> ref, FoundationClass kind,
                                                                         uint64_t &uid) {
  if (!ref || generic_)
    return std::nullopt;
  const auto referenced = uidOf(view_.describe(*ref));
  if (!referenced || *referenced >= decoded_.size() || state_[*referenced] != State::NotYet)
    return std::nullopt;
  const Ref target = view_.element(objects_, *referenced);
  if (*referenced == 0 && view_.stringEquals(target, "$null"))
    return std::nullopt;
  const BinaryPlistView::Entry object = view_.describe(target);
  if (object.type != Type::Dictionary || uidOf(object))
    return std::nullopt;
  const auto classRef = view_.valueForKey(object, "$class");
  if (!classRef)
    return std::nullopt;
  if (const ClassInfo &info = classOf(*classRef); info.factory || info.kind != kind)
    return std::nullopt;
  uid = *referenced;
  return object;
}

std::optional<std::string> KeyedUnarchiver::decodeText(std::optional<Ref> ref) {
  if (!ref)
    return std::nullopt;
  // A plain string, or an NSString object holding one: read where it lies.
  if (const BinaryPlistView::Entry entry = view_.describe(*ref); entry.type == Type::String) {
    countWork();
    return view_.string(entry);
  }
  uint64_t uid = 0;
  if (const auto instance = pendingInstanceOf(ref, FoundationClass::String, uid)) {
    const auto inner = view_.valueForKey(*instance, "NS.string");
    if (inner && view_.type(*inner) == Type::String) {
      countWork();
      return view_.string(*inner);
    }
  }
  const ObjectRef object = decodeValue(ref);
  if (const auto *string = dynamic_cast<const StringObject *>(object.get()))
    return string->value();
  return std::nullopt;
}

std::vector<ObjectRef> KeyedUnarchiver::decodeItems(std::optional<Ref> ref) {
  if (ref) {
    // A plain array's items, without the array object around them.
    if (const BinaryPlistView::Entry entry = view_.describe(*ref); entry.type == Type::Array || entry.type == Type::Set) {
      const NestingGuard nesting(depth_);
      countWork();
      std::vector<ObjectRef> items;
      items.reserve(entry.length);
      for (uint64_t i = 0; i < entry.length; ++i)
        items.push_back(decodeValue(view_.element(entry, i)));
      return items;
    }
  }
  const ObjectRef object = decodeValue(ref);
  if (const auto *array = dynamic_cast<const ArrayObject *>(object.get()))
    return array->items();
  return {};
}

std::shared_ptr<const TextAttributes> KeyedUnarchiver::decodeAttributes(std::optional<Ref> ref) {
  uint64_t uid = 0;
  if (const auto instance = pendingInstanceOf(ref, FoundationClass::Dictionary, uid)) {
    const auto keysRef = view_.valueForKey(*instance, "NS.keys");
    const auto valuesRef = view_.valueForKey(*instance, "NS.objects");
    const BinaryPlistView::Entry keys = keysRef ? view_.describe(*keysRef) : BinaryPlistView::Entry{};
    const BinaryPlistView::Entry values = valuesRef ? view_.describe(*valuesRef) : BinaryPlistView::Entry{};
    const auto plainList = [](const std::optional<Ref> &at, const BinaryPlistView::Entry &list) {
      return !at || list.type == Type::Array || list.type == Type::Set;
    };
    // A dictionary stored the usual way becomes the attribute set directly,
    // in the order a dictionary object would have been decoded.
    if (plainList(keysRef, keys) && plainList(valuesRef, values)) {
      const NestingGuard nesting(depth_);
      countWork();
      state_[uid] = State::InProgress;
      std::vector<std::optional<std::string>> names;
      names.reserve(keys.length);
      for (uint64_t i = 0; keysRef && i < keys.length; ++i)
        names.push_back(decodeText(view_.element(keys, i)));
      std::vector<ObjectRef> objects;
      objects.reserve(values.length);
      for (uint64_t i = 0; valuesRef && i < values.length; ++i)
        objects.push_back(decodeValue(view_.element(values, i)));
      const size_t count = std::min(names.size(), objects.size());
      // Named by strings throughout, as attributes always are, it becomes
      // the attribute set itself; anything else stays a dictionary.
      ObjectRef decoded;
      if (std::all_of(names.begin(), names.begin() + static_cast<ptrdiff_t>(count),
                      [](const auto &name) { return name.has_value(); })) {
        std::vector<TextAttributes::Entry> entries;
        entries.reserve(count);
        for (size_t i = 0; i < count; ++i)
          entries.emplace_back(std::move(*names[i]), std::move(objects[i]));
        decoded = std::make_shared<const TextAttributes>(std::move(entries));
      } else {
        std::vector<DictionaryObject::Entry> entries;
        for (size_t i = 0; i < count; ++i)
          entries.emplace_back(decodeValue(view_.element(keys, i)), std::move(objects[i]));
        decoded = std::make_shared<DictionaryObject>(std::move(entries));
      }
      decoded_[uid] = decoded;
      state_[uid] = State::Done;
      return TextAttributes::from(decoded);
    }
  }
  return TextAttributes::from(decodeValue(ref));
}

std::vector<std::shared_ptr<const TextAttributes>> KeyedUnarchiver::decodeAttributeList(std::optional<Ref> ref) {
  std::vector<std::shared_ptr<const TextAttributes>> list;
  uint64_t uid = 0;
  if (const auto instance = pendingInstanceOf(ref, FoundationClass::Array, uid)) {
    const auto itemsRef = view_.valueForKey(*instance, "NS.objects");
    const BinaryPlistView::Entry items = itemsRef ? view_.describe(*itemsRef) : BinaryPlistView::Entry{};
    if (items.type == Type::Array || items.type == Type::Set) {
      const NestingGuard nesting(depth_);
      countWork();
      // The array is under way while its items are read, as when it is
      // decoded itself: an item that refers back to it finds nothing.
      state_[uid] = State::InProgress;
      list.reserve(items.length);
      for (uint64_t i = 0; i < items.length; ++i)
        TextAttributes::appendDistinct(list, decodeAttributes(view_.element(items, i)));
      state_[uid] = State::NotYet;
      return list;
    }
  }
  const ObjectRef object = decodeValue(ref);
  if (const auto *array = dynamic_cast<const ArrayObject *>(object.get()))
    for (const ObjectRef &item : array->items())
      TextAttributes::appendDistinct(list, TextAttributes::from(item));
  return list;
}

} // namespace parlova
