// iChat 2 typed streams: the same transcript written as a typed stream (in
// both byte orders) and as a keyed archive must load into equal models, and
// damaged streams must be refused cleanly.
#include <gtest/gtest.h>

#include <chrono>

#include "archiving/TypedStreamUnarchiver.h"
#include "foundation/AttributedString.h"
#include "foundation/FoundationValues.h"
#include "foundation/TextAttributes.h"
#include "foundation/Unicode.h"
#include "model/ICLPChatLog.h"
#include "tests/support/ToolTestSupport.h"
#include "tests/support/ValueOf.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace fixtures;

// Everything a later stage reads from a model, as text, so that two
// models compare as a whole.
std::string modelText(const ICLPChatLog &log) {
  std::string out;
  for (const auto &p : log.participants())
    out += "participant " + p->Protocol() + " " + p->rawName() + "\n";
  for (const auto &m : log.messages()) {
    out += "message " + m->rawSpeaker().value_or("(none)") + " at " +
           std::to_string(m->TimeStamp() ? m->TimeStamp()->timeIntervalSinceReferenceDate() : -1) + " flags " +
           std::to_string(m->mystery()) + ": " + (m->string() ? utf16ToUtf8(m->string()->string()) : "") + "\n";
    if (!m->string())
      continue;
    for (const auto &run : m->string()->runs()) {
      out += "  run " + std::to_string(run.location) + "+" + std::to_string(run.length);
      if (const auto font = objectAs<Font>(run.attributes->valueForName(kFontAttributeName)))
        out += " font " + font->fontName() + " " + std::to_string(font->pointSize());
      if (const auto color = objectAs<Color>(run.attributes->valueForName(kForegroundColorAttributeName))) {
        const auto rgb = color->usingDeviceRGB();
        out += rgb ? " rgb " + std::to_string(rgb->red) + "," + std::to_string(rgb->green) + "," +
                         std::to_string(rgb->blue)
                   : " colour without rgb";
      }
      const ObjectRef link = run.attributes->valueForName(kLinkAttributeName);
      if (const auto url = objectAs<URLObject>(link))
        out += " url " + url->absoluteString();
      else if (link)
        out += " link " + link->description();
      if (const auto attachment = objectAs<TextAttachment>(run.attributes->valueForName(kAttachmentAttributeName))) {
        const auto &wrapper = attachment->fileWrapper();
        out += " attachment ";
        if (wrapper) {
          out += wrapper->preferredFilename().value_or("?") + " " +
                 std::to_string(wrapper->regularFileContents().size()) + " bytes";
          for (const auto &child : wrapper->fileWrappers())
            out += " [" + child->preferredFilename().value_or("?") + "]";
        }
      }
      out += "\n";
    }
  }
  return out;
}

TranscriptSpec everything() {
  const Account me{"AIM", "me"};
  const Account bob{"AIM", "bob"};
  const Account carol{"Jabber", "carol@example.org"};
  TranscriptSpec spec;
  spec.others = {bob, carol};
  MessageSpec styled = says(bob, 131969700.5, "");
  RunSpec red = text("r\xC3\xA9" "d \xF0\x9F\x98\x80 ");
  red.color = ColorSpec{ColorSpec::Space::CalibratedRGB, {1, 0, 0}};
  red.font = FontSpec{"Helvetica-Bold", 12.5};
  red.paragraphStyle = true;
  RunSpec grey = text("grey ");
  grey.color = ColorSpec{ColorSpec::Space::DeviceWhite, {0.5, 1}};
  RunSpec plainLink = text("plain");
  plainLink.link = LinkSpec{"http://example.com/a", false, std::nullopt};
  RunSpec urlLink = text("url");
  urlLink.link = LinkSpec{"sub/page.html", true, "http://example.com/dir/"};
  RunSpec file = text("\xEF\xBF\xBC");
  file.attachment = AttachmentSpec{"photo.jpg", {0xFF, 0xD8, 0, 1, 2}, false, {}, false};
  RunSpec folder = text("\xEF\xBF\xBC");
  folder.attachment = AttachmentSpec{"Pics", {}, true, {AttachmentSpec{"a.png", {1}, false, {}, false}}, false};
  RunSpec bare = text("\xEF\xBF\xBC");
  bare.attachment = AttachmentSpec{"", {}, false, {}, true};
  styled.runs = {red, grey, plainLink, urlLink, file, folder, bare, red};
  styled.flags = 0x1234;
  MessageSpec status;
  status.time = 131969800;
  status.runs = {text("bob went away")};
  spec.messages = {styled, says(me, 131969760, "ok"), says(carol, 131969770, "hi all"), status};
  return spec;
}

class TypedStreamLoading : public ::testing::Test {
protected:
  std::optional<ICLPChatLog> load(const std::string &name, const std::vector<uint8_t> &bytes) {
    const fs::path path = home_.path() / name;
    writeFile(path, bytes);
    return ICLPChatLog::initWithFilePath(path);
  }
  ScratchHome home_;
};

// Streams written by Apple's Foundation on a Mac, from the test data of
// ReagentX/crabstep, with the values its generator archived.
const std::string_view kHeader = "040b73747265616d747970656481e803"; // "streamtyped", system 1000
const std::map<std::string, std::string_view> kFoundationStreams = {
    {"NumberInt64", "840140848484084e534e756d626572008484074e5356616c7565008484084e534f626a656374008584012a84840171"
                    "978700e68ee7fdffffff86"},
    {"NSString", "840140848484084e53537472696e67018484084e534f626a656374008584012b0c48656c6c6f2c20776f726c6486"},
    {"NSDate", "840140848484064e5344617465008484084e534f626a65637400858401648280014b0186"},
    {"NSURLRelative", "840140848484054e5355524c008484084e534f626a656374008584016301928493950092848484084e53537472696e"
                      "67019484012b1868747470733a2f2f6578616d706c652e636f6d2f6469722f86869284979709706167652e68746d6c"
                      "8686"},
    {"NSAttributedString", "840140848484124e5341747472696275746564537472696e67008484084e534f626a656374008592848484084e"
                           "53537472696e67019484012b0c48656c6c6f2c20776f726c648684026949010c928484840c4e5344696374696f"
                           "6e6172790094840169008686"},
    {"NSArray", "840140848484074e534172726179008484084e534f626a65637400858401690392848484084e53537472696e670194840"
                "12b01618692848484084e534e756d626572008484074e5356616c7565009484012a848401719b01869284969701628686"},
    {"NSDictionary", "8401408484840c4e5344696374696f6e617279008484084e534f626a65637400858401690292848484084e535374"
                     "72696e67019484012b026b32869284969701768692849697026b318692848484084e534e756d626572008484074e5356"
                     "616c7565009484012a848401719b018686"},
};

ObjectRef decodeFoundationStream(const std::string &name, bool generically = false) {
  const auto bytes = fromHex(std::string(kHeader) + std::string(kFoundationStreams.at(name)));
  auto unarchiver = valueOf(TypedStreamUnarchiver::forData(bytes));
  if (!unarchiver)
    return nullptr;
  (*unarchiver)->setDecodesEverythingGenerically(generically);
  return valueOf((*unarchiver)->decodeRoot()).value_or(nullptr);
}

template <typename T> std::shared_ptr<const T> decoded(const std::string &name) {
  return objectAs<T>(decodeFoundationStream(name));
}

TEST(TypedStreamGolden, FoundationsOwnStreamsDecodeToTheirValues) {
  const auto int64 = decoded<NumberObject>("NumberInt64");
  ASSERT_TRUE(int64) << "the 8-byte integer form";
  EXPECT_EQ(int64->value(), NumberObject::Value(int64_t{-9'000'000'000}));
  EXPECT_EQ(decoded<StringObject>("NSString")->value(), "Hello, world");
  EXPECT_EQ(decoded<DateObject>("NSDate")->date().timeIntervalSince1970(), 1'000'000'000);
  EXPECT_EQ(decoded<URLObject>("NSURLRelative")->absoluteString(), "https://example.com/dir/page.html");

  const auto styled = decoded<AttributedString>("NSAttributedString");
  ASSERT_TRUE(styled);
  EXPECT_EQ(styled->string(), u"Hello, world");
  ASSERT_EQ(styled->runs().size(), 1u);
  EXPECT_EQ(styled->runs()[0].length, 12u);
  EXPECT_TRUE(styled->runs()[0].attributes->empty());

  const auto array = decoded<ArrayObject>("NSArray");
  ASSERT_TRUE(array);
  ASSERT_EQ(array->count(), 3u);
  EXPECT_EQ(objectAs<StringObject>(array->items()[0])->value(), "a");
  EXPECT_EQ(objectAs<NumberObject>(array->items()[1])->value(), NumberObject::Value(int64_t{1}));
  EXPECT_EQ(objectAs<StringObject>(array->items()[2])->value(), "b");

  const auto dictionary = decoded<DictionaryObject>("NSDictionary");
  ASSERT_TRUE(dictionary);
  std::map<std::string, std::string> entries;
  for (const auto &[key, value] : dictionary->entries())
    entries[key->description()] = value->description();
  EXPECT_EQ(entries, (std::map<std::string, std::string>{{"k1", "1"}, {"k2", "v"}}));

  for (const auto &[name, hex] : kFoundationStreams)
    EXPECT_TRUE(decodeFoundationStream(name, true)) << name << " read generically";
}

TEST_F(TypedStreamLoading, BothFormatsAndByteOrdersLoadIntoEqualModels) {
  const TranscriptSpec spec = everything();
  const auto keyed = load("bob on 1.ichat", keyedTranscript(spec));
  const auto little = load("bob on 1.chat", typedStreamTranscript(spec, ByteOrder::Little));
  const auto big = load("bob on 2.chat", typedStreamTranscript(spec, ByteOrder::Big));
  ASSERT_TRUE(keyed && little && big);
  EXPECT_EQ(little->format(), ICLPChatLog::Format::iChat2);
  const std::string expected = modelText(*keyed);
  EXPECT_NE(expected.find("url http://example.com/dir/sub/page.html"), std::string::npos) << expected;
  EXPECT_NE(expected.find("attachment Pics 0 bytes [a.png]"), std::string::npos) << expected;
  EXPECT_EQ(modelText(*little), expected);
  EXPECT_EQ(modelText(*big), expected);
}

TEST_F(TypedStreamLoading, SharedObjectsStayShared) {
  const auto log = load("bob on 1.chat", typedStreamTranscript(everything()));
  ASSERT_TRUE(log);
  const auto messages = log->messages();
  ASSERT_EQ(messages.size(), 4u);
  EXPECT_EQ(messages[0]->speaker(), log->participants()[0]) << "one Presentity serves the list and the messages";
  EXPECT_EQ(messages[2]->speaker(), log->participants()[1]);
  EXPECT_EQ(messages[3]->speaker(), nullptr);
  EXPECT_EQ(messages[3]->rawSpeaker(), std::nullopt);
  // The first and last runs share one attribute dictionary, written once.
  const auto &runs = messages[0]->string()->runs();
  EXPECT_EQ(runs.front().attributes, runs.back().attributes);
  EXPECT_EQ(messages[0]->mystery(), 0x1234u);
}

TEST_F(TypedStreamLoading, DamagedStreamsAreRefusedQuickly) {
  const auto good = typedStreamTranscript(everything());
  // Every cut short of the end loses the root's closing marks.
  for (size_t cut = 0; cut + 1 < good.size(); cut += 7)
    EXPECT_FALSE(ICLPChatLog::initWithArchiveData(std::span(good).first(cut), ICLPChatLog::Format::iChat2, "x"))
        << cut;

  const std::vector<uint8_t> header = {4, 11, 's', 't', 'r', 'e', 'a', 'm', 't', 'y', 'p', 'e', 'd', 0x81, 0xe8, 3};
  const auto stream = [&](std::vector<uint8_t> body) {
    body.insert(body.begin(), header.begin(), header.end());
    return body;
  };
  const std::vector<std::pair<std::string, std::vector<uint8_t>>> hostile = {
      // "@" then a reference to object 40, never read.
      {"forward reference", stream({0x84, 1, '@', 0x92 + 40})},
      // "@" then a reference to the type string table entry 5.
      {"missing shared string", stream({0x92 + 5})},
      // An NSArray claiming two billion elements.
      {"huge count", stream({0x84, 1, '@', 0x84, 0x84, 0x84, 7, 'N', 'S', 'A', 'r', 'r', 'a', 'y', 0, 0x85, 0x84, 1,
                             'i', 0x82, 0, 0, 0, 0x7f})},
      {"unknown type", stream({0x84, 1, 'x', 0})},
      {"string longer than the stream", stream({0x84, 1, '+', 0x82, 0xff, 0xff, 0xff, 0x0f})},
      {"wrong header", {4, 11, 's', 't', 'r', 'e', 'a', 'm', 't', 'y', 'p', 'e', 'x', 0}},
  };
  for (const auto &[label, bytes] : hostile)
    EXPECT_FALSE(ICLPChatLog::initWithArchiveData(bytes, ICLPChatLog::Format::iChat2, "x")) << label;

  // Arrays nested ten thousand deep: refused, not a stack overflow.
  std::vector<uint8_t> deep = {0x84, 1, '@', 0x84, 0x84, 0x84, 7, 'N', 'S', 'A', 'r', 'r', 'a', 'y', 0, 0x85,
                               0x84, 1, 'i', 1, 0x92};
  for (int i = 0; i < 10000; ++i)
    deep.insert(deep.end(), {0x84, 0x93, 0x94, 1, 0x92});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(ICLPChatLog::initWithArchiveData(stream(deep), ICLPChatLog::Format::iChat2, "x"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(TypedStreamLoading, UnknownClassesAreReadThroughAndStayInert) {
  const std::vector<uint8_t> bytes = {
      4, 11, 's', 't', 'r', 'e', 'a', 'm', 't', 'y', 'p', 'e', 'd', 0x81, 0xe8, 3,
      // "@": an NSArray of one IMFancy object holding an "i" and a "{_P=ff}".
      0x84, 1, '@', 0x84, 0x84, 0x84, 7, 'N', 'S', 'A', 'r', 'r', 'a', 'y', 0, 0x85, 0x84, 1, 'i', 1, 0x92, 0x84,
      0x84, 0x84, 7, 'I', 'M', 'F', 'a', 'n', 'c', 'y', 3, 0x85, 0x94, 5, 0x84, 7, '{', '_', 'P', '=', 'f', 'f', '}',
      0x83, 0, 0, 0x80, 0x3f, 2, 0x86, 0x86};
  auto archive = valueOf(TypedStreamUnarchiver::forData(bytes));
  ASSERT_TRUE(archive);
  const auto root = valueOf((*archive)->decodeRoot());
  ASSERT_TRUE(root);
  const auto array = objectAs<ArrayObject>(*root);
  ASSERT_TRUE(array);
  ASSERT_EQ(array->count(), 1u);
  EXPECT_EQ(array->objectAtIndex(0)->className(), "IMFancy");
}

// A root array of four: a Presentity; its name again, as an object; styled
// text "hi" whose one attribute dictionary holds NSLink (and, when asked,
// a nil key too), the name once more as its value; the dictionary again.
std::vector<uint8_t> sharingStream(bool withNilKey) {
  std::vector<uint8_t> bytes = {4, 11, 's', 't', 'r', 'e', 'a', 'm', 't', 'y', 'p', 'e', 'd', 0x81, 0xe8, 3};
  const auto add = [&](std::initializer_list<uint8_t> part) { bytes.insert(bytes.end(), part); };
  const auto text = [&](std::string_view chars) {
    bytes.push_back(static_cast<uint8_t>(chars.size()));
    bytes.insert(bytes.end(), chars.begin(), chars.end());
  };
  // Objects, classes and C strings are numbered together from 0x92, type
  // strings and class names apart.
  add({0x84, 1, '@', 0x84, 0x84, 0x84}); // object 0, class 1 NSArray (names: "@" 0, "NSArray" 1)
  text("NSArray");
  add({0, 0x84, 0x84});
  text("NSObject"); // class 2, name 2
  add({0, 0x85, 0x84, 1, 'i', 4});
  add({0x92, 0x84, 0x84, 0x84}); // object 3, class 4 Presentity (name 3 "i", 4)
  text("Presentity");
  add({1, 0x94, 0x92, 0x84, 0x84, 0x84}); // object 5, class 6 NSString (name 5)
  text("NSString");
  add({1, 0x94, 0x84, 1, '+'}); // name 6
  text("AIM");
  add({0x86, 0x92, 0x84, 0x98, 0x98}); // object 7
  text("bob");
  add({0x86, 0x86});
  add({0x92, 0x99}); // the string "bob" again
  add({0x92, 0x84, 0x84, 0x84}); // object 8, class 9 NSAttributedString (name 7)
  text("NSAttributedString");
  add({0, 0x94, 0x92, 0x84, 0x98, 0x98}); // object 10
  text("hi");
  add({0x86, 0x84, 2, 'i', 'I', 1, 2}); // name 8
  add({0x92, 0x84, 0x84, 0x84});       // object 11, class 12 NSDictionary (name 9)
  text("NSDictionary");
  add({0, 0x94, 0x95, static_cast<uint8_t>(withNilKey ? 2 : 1), 0x92, 0x84, 0x98, 0x98}); // object 13
  text("NSLink");
  add({0x86, 0x92, 0x99});
  if (withNilKey)
    add({0x92, 0x85, 0x92, 0x99});
  add({0x86, 0x86});
  add({0x92, 0x9d, 0x86}); // the attribute dictionary again
  return bytes;
}

// Strings and attribute dictionaries are read for their text and entries
// alone, yet the archive may refer to the same objects again later.
TEST(TypedStreamSharing, ObjectsReadForTheirContentsServeLaterReferences) {
  for (const bool withNilKey : {false, true}) {
    auto archive = valueOf(TypedStreamUnarchiver::forData(sharingStream(withNilKey)));
    ASSERT_TRUE(archive);
    (*archive)->setClass("Presentity", [](Coder &coder) { return ICLPPresentity::initWithCoder(coder); });
    const auto root = objectAs<ArrayObject>(valueOf((*archive)->decodeRoot()).value_or(nullptr));
    ASSERT_TRUE(root);
    ASSERT_EQ(root->count(), 4u);
    const auto presentity = objectAs<ICLPPresentity>(root->objectAtIndex(0));
    ASSERT_TRUE(presentity);
    EXPECT_EQ(presentity->Protocol(), "AIM");
    EXPECT_EQ(presentity->rawName(), "bob");
    const auto bob = objectAs<StringObject>(root->objectAtIndex(1));
    ASSERT_TRUE(bob);
    EXPECT_EQ(bob->value(), "bob");

    const auto styled = objectAs<AttributedString>(root->objectAtIndex(2));
    ASSERT_TRUE(styled);
    EXPECT_EQ(styled->string(), u"hi");
    const auto &attributes = styled->runs().front().attributes;
    EXPECT_EQ(attributes->entries().size(), 1u) << "only names that are strings are attributes";
    EXPECT_EQ(attributes->valueForName(kLinkAttributeName), bob) << "one object, shared";
    const ObjectRef dictionary = root->objectAtIndex(3);
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(dictionary->className(), "NSDictionary");
    if (withNilKey) {
      EXPECT_EQ(dictionary->description(), "{\n    NSLink = bob;\n    <null> = bob;\n}");
    } else {
      EXPECT_EQ(dictionary, attributes);
      EXPECT_EQ(dictionary->description(), "{\n    NSLink = bob;\n}");
    }
  }
}

} // namespace
} // namespace parlova::testing
