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
using namespace std::string_view_literals;
using namespace samples;

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
      if (run.attributes->valueForName("NSParagraphStyle"))
        out += " paragraph";
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
  RunSpec cmyk = text("cmyk ");
  cmyk.color = ColorSpec{ColorSpec::Space::CMYK, {0, 1, 1, 0, 1}};
  RunSpec plainLink = text("plain");
  plainLink.link = LinkSpec{"http://example.com/a b", false, std::nullopt};
  RunSpec urlLink = text("url");
  urlLink.link = LinkSpec{"../up/page.html?q=1", true, "http://example.com/dir/sub/index.html"};
  RunSpec file = text("\xEF\xBF\xBC");
  file.attachment = AttachmentSpec{"photo.jpg", {0xFF, 0xD8, 0, 1, 2}, false, {}, false};
  RunSpec folder = text("\xEF\xBF\xBC");
  folder.attachment = AttachmentSpec{"Pics", {}, true, {AttachmentSpec{"a.png", {1}, false, {}, false}}, false};
  RunSpec bare = text("\xEF\xBF\xBC");
  bare.attachment = AttachmentSpec{"", {}, false, {}, true};
  styled.runs = {red, grey, cmyk, plainLink, urlLink, file, folder, bare, red};
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
// ReagentX/crabstep, with the values its generator archived: one file each
// in tests/data/typedstream.
ObjectRef decodeFoundationStream(const std::string &name, bool generically = false) {
  const auto bytes = hexData("typedstream/" + name + ".hex");
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

  for (const auto &file : fs::directory_iterator(fs::path(PARLOVA_SOURCE_DIR) / "tests/data/typedstream"))
    EXPECT_TRUE(decodeFoundationStream(file.path().stem().string(), true)) << file.path() << " read generically";
}

TEST_F(TypedStreamLoading, BothFormatsAndByteOrdersLoadIntoEqualModels) {
  const TranscriptSpec spec = everything();
  const auto keyed = load("bob on 1.ichat", keyedTranscript(spec));
  const auto little = load("bob on 1.chat", typedStreamTranscript(spec, ByteOrder::Little));
  const auto big = load("bob on 2.chat", typedStreamTranscript(spec, ByteOrder::Big));
  ASSERT_TRUE(keyed && little && big);
  EXPECT_EQ(little->format(), ICLPChatLog::Format::iChat2);
  // Runs count UTF-16 units (the emoji is two); every colour space comes
  // out as RGB; a URL resolves against its base.
  const std::string expected = modelText(*keyed);
  EXPECT_EQ(expected, "participant AIM bob\n"
                      "participant Jabber carol@example.org\n"
                      "message bob at 131969700.500000 flags 4660: r\xC3\xA9" "d \xF0\x9F\x98\x80 grey cmyk plainurl"
                      "\xEF\xBF\xBC\xEF\xBF\xBC\xEF\xBF\xBCr\xC3\xA9" "d \xF0\x9F\x98\x80 \n"
                      "  run 0+7 font Helvetica-Bold 12.500000 paragraph rgb 1.000000,0.000000,0.000000\n"
                      "  run 7+5 rgb 0.500000,0.500000,0.500000\n"
                      "  run 12+5 rgb 1.000000,0.000000,0.000000\n"
                      "  run 17+5 link http://example.com/a b\n"
                      "  run 22+3 url http://example.com/dir/up/page.html?q=1\n"
                      "  run 25+1 attachment photo.jpg 5 bytes\n"
                      "  run 26+1 attachment Pics 0 bytes [a.png]\n"
                      "  run 27+1 attachment \n"
                      "  run 28+7 font Helvetica-Bold 12.500000 paragraph rgb 1.000000,0.000000,0.000000\n"
                      "message me at 131969760.000000 flags 0: ok\n  run 0+2\n"
                      "message carol@example.org at 131969770.000000 flags 0: hi all\n  run 0+6\n"
                      "message (none) at 131969800.000000 flags 0: bob went away\n  run 0+13\n");
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

// The table keeps a date as its time; a later reference to it is the same
// date.
TEST(TypedStreamSharing, ADateReferredToAgainIsTheSameTime) {
  std::vector<uint8_t> bytes = {4, 11, 's', 't', 'r', 'e', 'a', 'm', 't', 'y', 'p', 'e', 'd', 0x81, 0xe8, 3};
  const auto add = [&](std::string_view part) { bytes.insert(bytes.end(), part.begin(), part.end()); };
  add("\x84\x01@\x84\x84\x84\x07NSArray\x00\x84\x84\x08NSObject\x00\x85"sv); // object 0, classes 1 and 2
  add("\x84\x01i\x02\x92\x84\x84\x84\x06NSDate\x00\x94"sv);                   // two items; object 3, class 4
  add("\x84\x01" "d\x82\x80\x01\x4b\x01\x86"sv);                              // 21,692,800 s after 2001
  add("\x92\x95\x86"sv);                                                      // object 3 again
  auto archive = valueOf(TypedStreamUnarchiver::forData(bytes));
  ASSERT_TRUE(archive);
  const auto root = objectAs<ArrayObject>(valueOf((*archive)->decodeRoot()).value_or(nullptr));
  ASSERT_TRUE(root);
  ASSERT_EQ(root->count(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    const auto date = objectAs<DateObject>(root->objectAtIndex(i));
    ASSERT_TRUE(date) << i;
    EXPECT_EQ(date->date().timeIntervalSince1970(), 1'000'000'000) << i;
  }
}

} // namespace
} // namespace parlova::testing
