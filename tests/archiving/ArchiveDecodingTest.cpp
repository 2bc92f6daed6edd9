// The keyed-archive decoder and the attribute values it yields, checked
// against archives from the sample writer and against hand-made damage.
#include <gtest/gtest.h>

#include <algorithm>

#include "archiving/KeyedUnarchiver.h"
#include "foundation/FileWrapper.h"
#include "foundation/FoundationValues.h"
#include "foundation/PropertyList.h"
#include "foundation/TextAttributes.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "samples/KeyedArchiveBuilder.h"
#include "tests/support/ToolTestSupport.h"
#include "tests/support/ValueOf.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

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

// Hand-made archives for what the sample writer never writes.
class RawArchive : public KeyedArchiveBuilder {
public:
  uint64_t addClass(const std::vector<std::string> &chain) { return classFor(chain); }
  plist_t object(uint64_t classUid) {
    plist_t node = plist_new_dict();
    plist_dict_set_item(node, "$class", plist_new_uid(classUid));
    return node;
  }
  uint64_t array(const std::vector<uint64_t> &items) {
    plist_t node = instance({"NSArray", "NSObject"});
    plist_dict_set_item(node, "NS.objects", uidList(items));
    return add(node);
  }
  std::optional<ObjectRef> decodeRoot(uint64_t rootUid) {
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(rootUid));
    auto unarchiver = valueOf(KeyedUnarchiver::forData(archive(top)));
    if (!unarchiver)
      return std::nullopt;
    (*unarchiver)->setClass("InstantMessage", [](Coder &c) { return ICLPInstantMessage::initWithCoder(c); });
    return valueOf((*unarchiver)->decodeRoot());
  }
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
  EXPECT_TRUE(std::ranges::equal(second->entries(), first->entries()));
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
