// The keyed-archive decoder and the attribute values it yields, checked
// against archives from the fixture writer and against hand-made damage.
#include <gtest/gtest.h>

#include "model/ICLPChatLog.h"
#include "platform/FileWrapper.h"
#include "platform/KeyedUnarchiver.h"
#include "platform/TextAttributes.h"
#include "tests/ToolTestSupport.h"

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

TEST(FileWrapperFormat, ReadsTheLongBlockFormAndRejectsDamage) {
  // One entry "." whose block uses the long form: flag, 0x80000000, size,
  // padding count, padding, contents.
  std::vector<uint8_t> bytes = {'r', 't', 'f', 'd', 0, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, '.'};
  const std::vector<uint8_t> block = {1, 0, 0, 0, 0, 0, 0, 0x80, 3, 0, 0, 0, 2, 0, 0, 0, 0, 0, 'a', 'b', 'c'};
  bytes.insert(bytes.end(), {static_cast<uint8_t>(block.size()), 0, 0, 0});
  bytes.insert(bytes.end(), block.begin(), block.end());
  const auto wrapper = FileWrapper::fromSerializedRepresentation(bytes);
  ASSERT_TRUE(wrapper);
  EXPECT_EQ(wrapper->regularFileContents(), (std::vector<uint8_t>{'a', 'b', 'c'}));

  for (size_t cut = 0; cut < bytes.size(); ++cut)
    EXPECT_FALSE(FileWrapper::fromSerializedRepresentation(std::span(bytes).first(cut))) << cut;
  auto hugeCount = bytes;
  hugeCount[12] = 0xFF, hugeCount[13] = 0xFF, hugeCount[14] = 0xFF, hugeCount[15] = 0x7F;
  EXPECT_FALSE(FileWrapper::fromSerializedRepresentation(hugeCount));
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
  uint64_t array(const std::vector<uint64_t> &items) {
    plist_t node = object(arrayClass());
    plist_t list = plist_new_array();
    for (const uint64_t uid : items)
      plist_array_append_item(list, plist_new_uid(uid));
    plist_dict_set_item(node, "NS.objects", list);
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
    auto unarchiver = KeyedUnarchiver::forData(bytes);
    if (!unarchiver)
      return std::nullopt;
    unarchiver->setClass("InstantMessage", [](Coder &c) { return ICLPInstantMessage::initWithCoder(c); });
    return unarchiver->decodeTopLevelObjectForKey("root");
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
