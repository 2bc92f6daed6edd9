#include "platform/KeyedUnarchiver.h"

#include "platform/AttributedString.h"
#include "platform/FileWrapper.h"
#include "platform/FoundationValues.h"
#include "platform/GenericObject.h"
#include "platform/TextAttributes.h"
#include "platform/Unicode.h"

namespace parlova {
namespace {

// Binary archives hold real UIDs; XML ones spell each as {CF$UID = n}.
std::optional<uint64_t> uidOf(plist_t node) {
  if (!node)
    return std::nullopt;
  if (plist_get_node_type(node) == PLIST_UID) {
    uint64_t uid = 0;
    plist_get_uid_val(node, &uid);
    return uid;
  }
  if (plist_get_node_type(node) == PLIST_DICT && plist_dict_get_size(node) == 1)
    if (const auto uid = plistInteger(plist_dict_get_item(node, "CF$UID")))
      return static_cast<uint64_t>(*uid);
  return std::nullopt;
}

// Deep enough for any real transcript (message, text, attributes, font...),
// shallow enough that hostile nesting cannot exhaust the stack.
constexpr int kMaxDepth = 200;

class KeyedObjectCoder final : public Coder {
public:
  KeyedObjectCoder(KeyedUnarchiver &archive, plist_t object) : archive_(archive), object_(object) {}

  bool allowsKeyedCoding() const override { return true; }

  ObjectRef decodeObjectForKey(std::string_view key) override {
    return archive_.decodeValue(item(key));
  }

  int32_t decodeInt32ForKey(std::string_view key) override {
    const plist_t node = item(key);
    if (const auto integer = plistInteger(node))
      return static_cast<int32_t>(static_cast<uint64_t>(*integer));
    if (const auto real = plistReal(node)) {
      if (!(*real > -2147483649.0 && *real < 2147483648.0))
        return 0;
      return static_cast<int32_t>(*real);
    }
    return 0;
  }

  // A keyed archive has no stream order to read from.
  ObjectRef decodeObject() override { return nullptr; }
  uint32_t decodeUnsignedInt() override { return 0; }

  double decodeDoubleForKey(std::string_view key) {
    const plist_t node = item(key);
    if (const auto real = plistReal(node))
      return *real;
    if (const auto integer = plistInteger(node))
      return static_cast<double>(*integer);
    return 0;
  }

  std::vector<uint8_t> decodeBytesForKey(std::string_view key) {
    const plist_t node = item(key);
    if (auto bytes = plistData(node))
      return std::move(*bytes);
    if (const auto data = objectAs<DataObject>(archive_.decodeValue(node)))
      return data->bytes();
    return {};
  }

private:
  plist_t item(std::string_view key) const {
    return plist_dict_get_item(object_, std::string(key).c_str());
  }

  KeyedUnarchiver &archive_;
  plist_t object_;
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

KeyedUnarchiver::KeyedUnarchiver(PlistPtr archive, plist_t objects, plist_t top)
    : archive_(std::move(archive)), objects_(plistArrayItems(objects)), top_(top), decoded_(objects_.size()),
      state_(objects_.size(), State::NotYet) {}

std::unique_ptr<KeyedUnarchiver> KeyedUnarchiver::forData(std::span<const uint8_t> bytes) {
  PlistPtr archive = parsePropertyList(bytes);
  if (!archive || plist_get_node_type(archive.get()) != PLIST_DICT)
    return nullptr;
  const plist_t objects = plist_dict_get_item(archive.get(), "$objects");
  const plist_t top = plist_dict_get_item(archive.get(), "$top");
  if (!objects || plist_get_node_type(objects) != PLIST_ARRAY || !top || plist_get_node_type(top) != PLIST_DICT)
    return nullptr;
  return std::unique_ptr<KeyedUnarchiver>(new KeyedUnarchiver(std::move(archive), objects, top));
}

void KeyedUnarchiver::setClass(std::string archivedName, ClassFactory factory) {
  substitutions_[std::move(archivedName)] = std::move(factory);
}

std::optional<ObjectRef> KeyedUnarchiver::decodeTopLevelObjectForKey(std::string_view key) {
  try {
    return decodeValue(plist_dict_get_item(top_, std::string(key).c_str()));
  } catch (const ArchiveDamaged &) {
    return std::nullopt;
  }
}

ObjectRef KeyedUnarchiver::decodeValue(plist_t node) {
  if (!node)
    return nullptr;
  struct Nesting {
    int &depth;
    explicit Nesting(int &d) : depth(++d) {}
    ~Nesting() { --depth; }
  } nesting(depth_);
  if (depth_ > kMaxDepth)
    throw ArchiveDamaged("objects nested too deeply");

  if (const auto uid = uidOf(node))
    return decodeReference(*uid);
  switch (plist_get_node_type(node)) {
  case PLIST_STRING:
  case PLIST_KEY:
    return std::make_shared<StringObject>(plistString(node).value_or(""));
  case PLIST_UINT:
    return std::make_shared<NumberObject>(*plistInteger(node));
  case PLIST_REAL:
    return std::make_shared<NumberObject>(*plistReal(node));
  case PLIST_BOOLEAN:
    return std::make_shared<NumberObject>(*plistInteger(node) != 0);
  case PLIST_DATA:
    return std::make_shared<DataObject>(*plistData(node));
  case PLIST_DATE: {
    int32_t seconds = 0, microseconds = 0;
    plist_get_date_val(node, &seconds, &microseconds);
    return std::make_shared<DateObject>(Date(seconds + microseconds / 1e6));
  }
  case PLIST_ARRAY: {
    std::vector<ObjectRef> items;
    for (const plist_t item : plistArrayItems(node))
      items.push_back(decodeValue(item));
    return std::make_shared<ArrayObject>(std::move(items));
  }
  case PLIST_DICT: {
    if (plist_dict_get_item(node, "$class"))
      return decodeInstance(node);
    std::vector<DictionaryObject::Entry> entries;
    for (const auto &[key, value] : plistDictionaryEntries(node))
      entries.emplace_back(std::make_shared<StringObject>(key), decodeValue(value));
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
  const plist_t node = objects_[uid];
  ObjectRef object;
  const auto text = plistString(node);
  if (!(uid == 0 && text && *text == "$null"))
    object = decodeValue(node);
  decoded_[uid] = object;
  state_[uid] = State::Done;
  return object;
}

ObjectRef KeyedUnarchiver::decodeInstance(plist_t objectDictionary) {
  const auto classUid = uidOf(plist_dict_get_item(objectDictionary, "$class"));
  if (!classUid)
    throw ArchiveDamaged("object without a class reference");
  const plist_t classInfo = *classUid < objects_.size() ? objects_[*classUid] : nullptr;
  if (!classInfo || plist_get_node_type(classInfo) != PLIST_DICT)
    throw ArchiveDamaged("class reference to something that is not a class");

  // The class itself first, then its superclasses, as NSKeyedUnarchiver
  // falls back along the chain for classes it cannot find.
  std::vector<std::string> chain;
  if (auto name = plistString(plist_dict_get_item(classInfo, "$classname")))
    chain.push_back(std::move(*name));
  if (const plist_t classes = plist_dict_get_item(classInfo, "$classes"); classes && plist_get_node_type(classes) == PLIST_ARRAY) {
    for (const plist_t item : plistArrayItems(classes))
      if (auto name = plistString(item); name && (chain.empty() || chain.back() != *name))
        chain.push_back(std::move(*name));
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

ObjectRef KeyedUnarchiver::decodeGenerically(const std::vector<std::string> &chain, plist_t objectDictionary) {
  std::shared_ptr<const ArchivedClass> archivedClass;
  for (size_t i = chain.size(); i-- > 0;)
    archivedClass = std::make_shared<ArchivedClass>(chain[i], std::nullopt, archivedClass);
  std::vector<GenericObject::Field> fields;
  for (const auto &[label, value] : plistDictionaryEntries(objectDictionary))
    if (label != "$class")
      fields.push_back({label, {decodeValue(value)}});
  return std::make_shared<GenericObject>(archivedClass, std::move(fields));
}

ObjectRef KeyedUnarchiver::decodeKnownClass(const std::string &name, plist_t objectDictionary, bool &known) {
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
