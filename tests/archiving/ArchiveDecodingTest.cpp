// The keyed-archive decoder and the attribute values it yields, checked
// against archives from the fixture writer and against hand-made damage.
#include <gtest/gtest.h>

#include "archiving/KeyedUnarchiver.h"
#include "foundation/FileWrapper.h"
#include "foundation/FoundationValues.h"
#include "foundation/PropertyList.h"
#include "foundation/TextAttributes.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "tests/support/ToolTestSupport.h"
#include "tests/support/ValueOf.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace fixtures;

std::shared_ptr<const AttributedString> onlyMessageText(const ScratchHome &home, const MessageSpec &message) {
  TranscriptSpec spec;
  spec.others = {{"AIM", "alice"}};
  spec.messages = {message};
  const fs::path path = home.path() / "alice on 1.ichat";
  writeFile(path, keyedTranscript(spec));
  const auto log = ICLPChatLog::initWithFilePath(path);
  if (!log || log->messages().size() != 1)
    return nullptr;
  return log->messages()[0]->string();
}

template <class T> std::shared_ptr<const T> attributeAt(const AttributedString &text, size_t index, std::string_view name) {
  return objectAs<T>(text.attributesAtIndex(index).attributes->valueForName(name));
}

TEST(KeyedDecoding, AttributeRunsCountUtf16UnitsAndCarryEveryKind) {
  ScratchHome home;
  MessageSpec message;
  message.speaker = Account{"AIM", "alice"};
  RunSpec red = text("r\xF0\x9F\x98\x80" "d ");  // an emoji is two UTF-16 units
  red.color = ColorSpec{ColorSpec::Space::CalibratedRGB, {1, 0, 0}};
  red.font = FontSpec{"Helvetica", 12.5};
  red.paragraphStyle = true;
  RunSpec grey = text("grey ");
  grey.color = ColorSpec{ColorSpec::Space::DeviceWhite, {0.5, 1}};
  RunSpec cmyk = text("cmyk ");
  cmyk.color = ColorSpec{ColorSpec::Space::CMYK, {0, 1, 1, 0, 1}};
  RunSpec plainLink = text("plain");
  plainLink.link = LinkSpec{"http://example.com/a b", false, std::nullopt};
  RunSpec urlLink = text("url");
  urlLink.link = LinkSpec{"../up/page.html?q=1", true, "http://example.com/dir/sub/index.html"};
  message.runs = {red, grey, cmyk, plainLink, urlLink};

  const auto string = onlyMessageText(home, message);
  ASSERT_TRUE(string);
  EXPECT_EQ(string->length(), 23u);
  ASSERT_EQ(string->runs().size(), 5u);
  EXPECT_EQ(string->runs()[0].length, 5u);
  EXPECT_EQ(string->runs()[1].location, 5u);

  const auto font = attributeAt<Font>(*string, 0, kFontAttributeName);
  ASSERT_TRUE(font);
  EXPECT_EQ(font->fontName(), "Helvetica");
  EXPECT_DOUBLE_EQ(font->pointSize(), 12.5);
  EXPECT_TRUE(string->attributesAtIndex(0).attributes->valueForName("NSParagraphStyle"));

  const auto rgb = attributeAt<Color>(*string, 4, kForegroundColorAttributeName)->usingDeviceRGB();
  ASSERT_TRUE(rgb);
  EXPECT_EQ(std::make_tuple(rgb->red, rgb->green, rgb->blue), std::make_tuple(1.0, 0.0, 0.0));
  const auto white = attributeAt<Color>(*string, 5, kForegroundColorAttributeName)->usingDeviceRGB();
  EXPECT_EQ(std::make_tuple(white->red, white->green, white->blue), std::make_tuple(0.5, 0.5, 0.5));
  const auto fromCmyk = attributeAt<Color>(*string, 10, kForegroundColorAttributeName)->usingDeviceRGB();
  EXPECT_EQ(std::make_tuple(fromCmyk->red, fromCmyk->green, fromCmyk->blue), std::make_tuple(1.0, 0.0, 0.0));

  const auto plain = objectAs<StringObject>(string->attributesAtIndex(15).attributes->valueForName(kLinkAttributeName));
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->value(), "http://example.com/a b");
  const auto url = attributeAt<URLObject>(*string, 21, kLinkAttributeName);
  ASSERT_TRUE(url);
  EXPECT_EQ(url->absoluteString(), "http://example.com/dir/up/page.html?q=1");
}

TEST(KeyedDecoding, AttachmentsCarryTheirFilesAndFolders) {
  ScratchHome home;
  MessageSpec message;
  message.speaker = Account{"AIM", "alice"};
  RunSpec file = text("\xEF\xBF\xBC");
  file.attachment = AttachmentSpec{"photo.jpg", {0xFF, 0xD8, 0x00, 0x01}, false, {}, false};
  RunSpec folder = text("\xEF\xBF\xBC");
  folder.attachment = AttachmentSpec{"Pictures", {}, true, {AttachmentSpec{"a.png", {1, 2, 3}, false, {}, false}}, false};
  RunSpec bare = text("\xEF\xBF\xBC");
  bare.attachment = AttachmentSpec{"", {}, false, {}, true};
  message.runs = {file, folder, bare};

  const auto string = onlyMessageText(home, message);
  ASSERT_TRUE(string);
  const auto photo = attributeAt<TextAttachment>(*string, 0, kAttachmentAttributeName);
  ASSERT_TRUE(photo && photo->fileWrapper());
  EXPECT_TRUE(photo->fileWrapper()->isRegularFile());
  EXPECT_EQ(photo->fileWrapper()->preferredFilename(), "photo.jpg");
  EXPECT_EQ(photo->fileWrapper()->regularFileContents(), (std::vector<uint8_t>{0xFF, 0xD8, 0x00, 0x01}));

  const auto pictures = attributeAt<TextAttachment>(*string, 1, kAttachmentAttributeName)->fileWrapper();
  ASSERT_TRUE(pictures);
  EXPECT_TRUE(pictures->isDirectory());
  ASSERT_EQ(pictures->fileWrappers().size(), 1u);
  EXPECT_EQ(pictures->fileWrappers()[0]->preferredFilename(), "a.png");

  const auto none = attributeAt<TextAttachment>(*string, 2, kAttachmentAttributeName);
  ASSERT_TRUE(none);
  EXPECT_EQ(none->fileWrapper(), nullptr);
}

ObjectRef decodeFoundationArchive(std::span<const uint8_t> bytes) {
  auto unarchiver = valueOf(KeyedUnarchiver::forData(bytes));
  return unarchiver ? valueOf((*unarchiver)->decodeRoot()).value_or(nullptr) : nullptr;
}

// Archives written by Apple's NSKeyedArchiver, from the test resources of
// swift-corelibs-foundation, with the values its tests expect of them: a
// dictionary {array: [null, "hello", 34545, {key: val}], string: "hello",
// url: index.xml relative to https://www.swift.org, uuid: ...}, binary; and
// foo.xml relative to https://www.example.com, as XML with CF$UID
// references.
TEST(KeyedDecodingGolden, FoundationsOwnArchivesDecodeToTheirValues) {
  const fs::path data = fs::path(PARLOVA_SOURCE_DIR) / "tests/data";
  const auto complex =
      objectAs<DictionaryObject>(decodeFoundationArchive(*readFileContents(data / "foundation-complex-archive.plist")));
  ASSERT_TRUE(complex);
  std::map<std::string, ObjectRef> entries;
  for (const auto &[key, value] : complex->entries())
    entries[key->description()] = value;
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(objectAs<StringObject>(entries["string"])->value(), "hello");
  EXPECT_EQ(objectAs<URLObject>(entries["url"])->absoluteString(), "https://www.swift.org/index.xml");
  EXPECT_TRUE(entries["uuid"]) << "a class the program does not know still decodes, inert";
  const auto array = objectAs<ArrayObject>(entries["array"]);
  ASSERT_TRUE(array);
  ASSERT_EQ(array->count(), 4u);
  EXPECT_EQ(array->items()[1], entries["string"]) << "one object, shared";
  EXPECT_EQ(objectAs<NumberObject>(array->items()[2])->value(), NumberObject::Value(int64_t{34545}));
  const auto inner = objectAs<DictionaryObject>(array->items()[3]);
  ASSERT_TRUE(inner);
  ASSERT_EQ(inner->entries().size(), 1u);
  EXPECT_EQ(inner->entries()[0].first->description(), "key");
  EXPECT_EQ(inner->entries()[0].second->description(), "val");

  const auto url = objectAs<URLObject>(decodeFoundationArchive(*readFileContents(data / "foundation-url-archive.plist")));
  ASSERT_TRUE(url);
  EXPECT_EQ(url->relativeString(), "foo.xml");
  EXPECT_EQ(url->absoluteString(), "https://www.example.com/foo.xml");
}

// Hand-made archives for what the fixture writer never writes.
class RawArchive {
public:
  RawArchive() : objects_(plist_new_array()) { plist_array_append_item(objects_, plist_new_string("$null")); }
  ~RawArchive() { plist_free(objects_); }
  uint64_t add(plist_t node) {
    plist_array_append_item(objects_, node);
    return plist_array_get_size(objects_) - 1;
  }
  uint64_t addClass(const std::vector<std::string> &chain) {
    plist_t info = plist_new_dict();
    plist_dict_set_item(info, "$classname", plist_new_string(chain.front().c_str()));
    plist_t classes = plist_new_array();
    for (const auto &name : chain)
      plist_array_append_item(classes, plist_new_string(name.c_str()));
    plist_dict_set_item(info, "$classes", classes);
    return add(info);
  }
  plist_t object(uint64_t classUid) {
    plist_t node = plist_new_dict();
    plist_dict_set_item(node, "$class", plist_new_uid(classUid));
    return node;
  }
  static plist_t uidList(const std::vector<uint64_t> &uids) {
    plist_t list = plist_new_array();
    for (const uint64_t uid : uids)
      plist_array_append_item(list, plist_new_uid(uid));
    return list;
  }
  uint64_t array(const std::vector<uint64_t> &items) {
    plist_t node = object(arrayClass());
    plist_dict_set_item(node, "NS.objects", uidList(items));
    return add(node);
  }
  std::optional<ObjectRef> decodeRoot(uint64_t rootUid) {
    plist_t archive = plist_new_dict();
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(rootUid));
    plist_dict_set_item(archive, "$top", top);
    plist_dict_set_item(archive, "$objects", plist_copy(objects_));
    const auto bytes = serializePropertyList(archive, PlistFormat::Binary);
    plist_free(archive);
    auto unarchiver = valueOf(KeyedUnarchiver::forData(bytes));
    if (!unarchiver)
      return std::nullopt;
    (*unarchiver)->setClass("InstantMessage", [](Coder &c) { return ICLPInstantMessage::initWithCoder(c); });
    return valueOf((*unarchiver)->decodeRoot());
  }

private:
  uint64_t arrayClass() {
    if (!arrayClass_)
      arrayClass_ = addClass({"NSArray", "NSObject"});
    return *arrayClass_;
  }
  plist_t objects_;
  std::optional<uint64_t> arrayClass_;
};

TEST(KeyedDecoding, UnknownClassesAreInertAndSubclassesFallBackAlongTheirChain) {
  RawArchive archive;
  const uint64_t fancy = archive.add(archive.object(archive.addClass({"IMFancyThing", "NSObject"})));
  const uint64_t subclassed = archive.add(archive.object(archive.addClass({"IMNewerMessage", "InstantMessage", "NSObject"})));
  const auto root = archive.decodeRoot(archive.array({fancy, subclassed}));
  ASSERT_TRUE(root);
  const auto items = objectAs<ArrayObject>(*root);
  ASSERT_TRUE(items);
  EXPECT_EQ(items->objectAtIndex(0)->className(), "IMFancyThing");
  EXPECT_TRUE(objectAs<ICLPInstantMessage>(items->objectAtIndex(1)));
}

// Strings and attribute dictionaries are read for their text and entries
// alone, yet other objects may refer to them too, before or after.
TEST(KeyedDecoding, ObjectsReadForTheirContentsServeEveryReference) {
  for (const bool dictionaryFirst : {false, true}) {
    RawArchive archive;
    const uint64_t linkName = archive.add(plist_new_string("NSLink"));
    const uint64_t address = archive.add(plist_new_string("http://x/"));
    plist_t text = archive.object(archive.addClass({"NSMutableString", "NSString", "NSObject"}));
    plist_dict_set_item(text, "NS.string", plist_new_uid(archive.add(plist_new_string("hi"))));
    const uint64_t textUid = archive.add(text);
    plist_t dictionary = archive.object(archive.addClass({"NSDictionary", "NSObject"}));
    plist_dict_set_item(dictionary, "NS.keys", RawArchive::uidList({linkName}));
    plist_dict_set_item(dictionary, "NS.objects", RawArchive::uidList({address}));
    const uint64_t dictionaryUid = archive.add(dictionary);
    plist_t styled = archive.object(archive.addClass({"NSAttributedString", "NSObject"}));
    plist_dict_set_item(styled, "NSString", plist_new_uid(textUid));
    plist_dict_set_item(styled, "NSAttributes", plist_new_uid(dictionaryUid));
    const uint64_t styledUid = archive.add(styled);

    const auto root = archive.decodeRoot(dictionaryFirst ? archive.array({dictionaryUid, styledUid, textUid})
                                                         : archive.array({styledUid, dictionaryUid, textUid}));
    ASSERT_TRUE(root);
    const auto items = objectAs<ArrayObject>(*root);
    ASSERT_TRUE(items && items->count() == 3);
    const auto string = objectAs<AttributedString>(items->objectAtIndex(dictionaryFirst ? 1 : 0));
    const ObjectRef dictionaryObject = items->objectAtIndex(dictionaryFirst ? 0 : 1);
    ASSERT_TRUE(string && dictionaryObject);
    EXPECT_EQ(string->string(), u"hi");
    const auto link = objectAs<StringObject>(string->runs().front().attributes->valueForName(kLinkAttributeName));
    ASSERT_TRUE(link) << dictionaryFirst;
    EXPECT_EQ(link->value(), "http://x/");
    if (!dictionaryFirst) {
      EXPECT_EQ(dictionaryObject, string->runs().front().attributes) << "one object, shared";
    }
    EXPECT_EQ(dictionaryObject->className(), "NSDictionary");
    EXPECT_EQ(dictionaryObject->description(), "{\n    NSLink = \"http://x/\";\n}");
    EXPECT_EQ(stringValueOf(items->objectAtIndex(2)), "hi");
  }
}

// Attribute lists no Mac writes decode as their objects would: a dictionary
// listed twice gives two sets (runs of different sets stay apart), a key
// that is no string keeps its dictionary a dictionary, and a value that
// refers back to the list is cut like any cycle.
TEST(KeyedDecoding, OddAttributeListsDecodeAsTheirObjectsWould) {
  RawArchive archive;
  const uint64_t dictionaryClass = archive.addClass({"NSDictionary", "NSObject"});
  const uint64_t linkName = archive.add(plist_new_string("NSLink"));
  const uint64_t address = archive.add(plist_new_string("http://x/"));
  const uint64_t number = archive.add(plist_new_uint(7));
  const uint64_t listUid = number + 3; // after the dictionary below and the array's class
  plist_t odd = archive.object(dictionaryClass);
  plist_dict_set_item(odd, "NS.keys", RawArchive::uidList({linkName, number}));
  plist_dict_set_item(odd, "NS.objects", RawArchive::uidList({address, listUid}));
  const uint64_t oddUid = archive.add(odd);
  plist_t list = archive.object(archive.addClass({"NSArray", "NSObject"}));
  plist_dict_set_item(list, "NS.objects", RawArchive::uidList({oddUid, oddUid}));
  ASSERT_EQ(archive.add(list), listUid);
  plist_t styled = archive.object(archive.addClass({"NSAttributedString", "NSObject"}));
  plist_dict_set_item(styled, "NSString", plist_new_uid(archive.add(plist_new_string("ab"))));
  plist_dict_set_item(styled, "NSAttributes", plist_new_uid(listUid));
  const std::vector<char> info = {1, 0, 1, 1};
  plist_dict_set_item(styled, "NSAttributeInfo", plist_new_data(info.data(), info.size()));
  const uint64_t styledUid = archive.add(styled);

  const auto root = archive.decodeRoot(archive.array({styledUid, oddUid}));
  ASSERT_TRUE(root);
  const auto items = objectAs<ArrayObject>(*root);
  ASSERT_TRUE(items && items->count() == 2);
  const auto string = objectAs<AttributedString>(items->objectAtIndex(0));
  ASSERT_TRUE(string);
  ASSERT_EQ(string->runs().size(), 2u);
  const auto &first = string->runs()[0].attributes;
  const auto &second = string->runs()[1].attributes;
  EXPECT_NE(first, second);
  ASSERT_EQ(first->entries().size(), 1u);
  EXPECT_EQ(stringValueOf(first->valueForName(kLinkAttributeName)), "http://x/");
  EXPECT_EQ(second->entries(), first->entries());
  EXPECT_EQ(items->objectAtIndex(1)->description(), "{\n    NSLink = \"http://x/\";\n    7 = <null>;\n}");
}

TEST(KeyedDecoding, HostileReferencesEndInNoResultWithoutCrashing) {
  {
    RawArchive archive;
    EXPECT_FALSE(archive.decodeRoot(999)) << "a reference past the objects";
  }
  {
    RawArchive archive;
    plist_t node = archive.object(12345);
    EXPECT_FALSE(archive.decodeRoot(archive.add(node))) << "a class reference past the objects";
  }
  {
    RawArchive archive;
    // Each array holds the next one: nesting far deeper than any transcript.
    uint64_t inner = archive.array({});
    for (int i = 0; i < 5000; ++i)
      inner = archive.array({inner});
    EXPECT_FALSE(archive.decodeRoot(inner));
  }
  {
    RawArchive archive;
    // An array that holds itself decodes, with the cycle cut.
    const uint64_t self = 2; // after $null and the array's class
    const auto root = archive.decodeRoot(archive.array({self}));
    ASSERT_TRUE(root);
  }
}

TEST(URLResolution, FollowsRfc3986) {
  const auto base = std::make_shared<URLObject>("http://a/b/c/d;p?q", nullptr);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"g", "http://a/b/c/g"},       {"./g", "http://a/b/c/g"},   {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"},          {"//g", "http://g"},         {"?y", "http://a/b/c/d;p?y"},
      {"#s", "http://a/b/c/d;p?q#s"}, {"../g", "http://a/b/g"},   {"../../g", "http://a/g"},
      {"", "http://a/b/c/d;p?q"},    {"mailto:x@y", "mailto:x@y"}, {"..", "http://a/b/"},
  };
  for (const auto &[relative, expected] : cases)
    EXPECT_EQ(URLObject(relative, base).absoluteString(), expected) << relative;
}

} // namespace
} // namespace parlova::testing
