// The plain and HTML renderings: their exact texts, and the linear HTML
// conversion against the position-table algorithm it must match byte for
// byte.
#include <gtest/gtest.h>

#include <random>

#include "foundation/TextAttributes.h"
#include "foundation/Unicode.h"
#include "model/ICLPChatLog.h"
#include "model/InsertStringAndTrackIndices.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

// The conversion exactly as defined: a position table updated on every
// insertion. Quadratic, and the reference for the real one.
std::string referenceHtml(const ICLPChatLog &log) {
  const AttributedString styled = log.RichChatLog();
  const auto n = static_cast<int32_t>(styled.length());
  std::u16string html = u"<html><head><title>Parlova log</title></head><body>";
  const auto h = static_cast<int32_t>(html.size());
  std::vector<int32_t> table(static_cast<size_t>(n) + 1);
  for (int32_t i = 0; i <= n; ++i)
    table[static_cast<size_t>(i)] = i + h;
  html += styled.string();
  const auto insertPair = [&](const AttributeRun &run, const std::string &open, const std::u16string &close) {
    const auto start = static_cast<int32_t>(run.location);
    InsertStringAndTrackIndices(html, table, utf8ToUtf16(open), start, n + 1);
    InsertStringAndTrackIndices(html, table, close, start + static_cast<int32_t>(run.length), n + 1);
  };
  for (size_t index = 0; index < styled.length();) {
    const AttributeRun &run = styled.attributesAtIndex(index);
    const TextAttributes &attributes = *run.attributes;
    if (const auto color = objectAs<Color>(attributes.valueForName(kForegroundColorAttributeName))) {
      if (const auto rgb = color->usingDeviceRGB()) {
        char tag[64];
        std::snprintf(tag, sizeof tag, "<font color=\"#%02x%02x%02x\">", static_cast<int>(rgb->red) * 255,
                      static_cast<int>(rgb->green) * 255, static_cast<int>(rgb->blue) * 255);
        insertPair(run, tag, u"</font>");
      }
    }
    if (const auto font = objectAs<Font>(attributes.valueForName(kFontAttributeName)))
      insertPair(run, "<font face=\"" + font->fontName() + "\" point-size=\"" +
                          std::to_string(static_cast<int>(font->pointSize())) + "\">",
                 u"</font>");
    if (const ObjectRef link = attributes.valueForName(kLinkAttributeName)) {
      const auto url = objectAs<URLObject>(link);
      insertPair(run, "<a href=\"" + (url ? url->absoluteString() : link->description()) + "\">", u"</a>");
    }
    if (const auto attachment = objectAs<TextAttachment>(attributes.valueForName(kAttachmentAttributeName))) {
      html[static_cast<size_t>(table[run.location])] = u' ';
      const auto name = attachment->fileWrapper() ? attachment->fileWrapper()->preferredFilename() : std::nullopt;
      InsertStringAndTrackIndices(html, table, name && !name->empty() ? u"[" + utf8ToUtf16(*name) + u"]" : u"[attached item]",
                                  static_cast<int32_t>(run.location), n + 1);
    }
    index = run.location + run.length;
  }
  html += u"</body></html>";
  return utf16ToUtf8(html);
}

std::string htmlOf(const ICLPChatLog &log) {
  const auto bytes = log.HTMLChatLog();
  return std::string(bytes.begin(), bytes.end());
}

class Rendering : public ::testing::Test {
protected:
  ICLPChatLog load(const TranscriptSpec &spec) {
    const fs::path path = home_.path() / ("alice on " + std::to_string(counter_++) + ".ichat");
    writeFile(path, keyedTranscript(spec));
    return *ICLPChatLog::initWithFilePath(path);
  }
  ScratchHome home_;
  int counter_ = 0;
};

TEST_F(Rendering, PlainTextFollowsTheHeaderDirectlyAndSkipsStatusLines) {
  TranscriptSpec spec = simpleChat("alice");
  MessageSpec status;
  status.runs = {text("alice went away")};
  spec.messages.insert(spec.messages.begin() + 1, status);
  spec.messages.push_back(says({"AIM", "bob"}, 1, ""));
  EXPECT_EQ(load(spec).PlainChatLog(),
            "Sent by Parlova ( http://www.hollowmere.com/parlova/ )alice: hi there\nparlovauser: hello!\n");
  EXPECT_EQ(load(TranscriptSpec{}).PlainChatLog(), "Sent by Parlova ( http://www.hollowmere.com/parlova/ )");
  EXPECT_EQ(htmlOf(load(TranscriptSpec{})),
            "<html><head><title>Parlova log</title></head><body><br><hr><i>Sent by <a "
            "href=\"http://www.hollowmere.com/parlova/\">Parlova</a>.</i></body></html>");
}

TEST_F(Rendering, HtmlTagsFollowTheirQuirks) {
  MessageSpec message = says({"AIM", "alice"}, 1, "");
  RunSpec red = text("red");
  red.color = ColorSpec{ColorSpec::Space::CalibratedRGB, {1, 0, 0}};
  red.font = FontSpec{"Helvetica", 12.5};
  RunSpec dark = text("dark");
  dark.color = ColorSpec{ColorSpec::Space::CalibratedRGB, {0.5, 0, 0}};
  RunSpec link = text("<b>&");
  link.link = LinkSpec{"http://example.com/?a=1&b=2", false, std::nullopt};
  RunSpec photo = text("\xEF\xBF\xBC");
  photo.attachment = AttachmentSpec{"photo.jpg", {1}, false, {}, false};
  RunSpec bare = text("\xEF\xBF\xBC");
  bare.attachment = AttachmentSpec{"", {}, false, {}, true};
  message.runs = {red, dark, link, photo, bare};
  TranscriptSpec spec;
  spec.others = {{"AIM", "alice"}};
  spec.messages = {message};
  const std::string html = htmlOf(load(spec));
  const std::string body = "<font face=\"Helvetica-Bold\" point-size=\"12\">alice</font>: "
                           "<font color=\"#ff0000\"><font face=\"Helvetica\" point-size=\"12\">red</font></font>"
                           "<font color=\"#000000\">dark</font>"
                           "<a href=\"http://example.com/?a=1&b=2\"><b>&</a>"
                           "[photo.jpg] [attached item] \n\n<br>\n<br><hr>";
  EXPECT_NE(html.find(body), std::string::npos) << html;
}

TEST_F(Rendering, LinearConversionMatchesThePositionTable) {
  std::mt19937 random(7);
  const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  for (int round = 0; round < 60; ++round) {
    TranscriptSpec spec;
    spec.others = {{"AIM", "alice"}, {"SubNet", "bob@host"}};
    for (int m = 0; m < 1 + pick(12); ++m) {
      MessageSpec message = says(pick(2) ? Account{"AIM", "alice"} : Account{"SubNet", "bob@host"}, m, "");
      for (int r = 0; r < 1 + pick(5); ++r) {
        RunSpec run = text(pick(4) == 0 ? "\xEF\xBF\xBC" : std::string(1 + static_cast<size_t>(pick(5)), 'a' + static_cast<char>(pick(26))) + (pick(3) ? "" : "\xC3\xA9\xF0\x9F\x98\x80"));
        if (pick(2))
          run.color = ColorSpec{ColorSpec::Space::CalibratedRGB, {static_cast<double>(pick(2)), 0.5, 1}};
        if (pick(2))
          run.font = FontSpec{pick(2) ? "Helvetica" : "Courier", 9.0 + pick(8)};
        if (pick(3) == 0)
          run.link = LinkSpec{"http://x/" + std::to_string(pick(9)), pick(2) == 0, std::nullopt};
        if (run.text == "\xEF\xBF\xBC" && pick(2))
          run.attachment = AttachmentSpec{pick(2) ? "f.png" : "", {1}, false, {}, pick(4) == 0};
        message.runs.push_back(run);
      }
      if (pick(8) == 0)
        message.speaker.reset();
      spec.messages.push_back(message);
    }
    const ICLPChatLog log = load(spec);
    ASSERT_EQ(htmlOf(log), referenceHtml(log)) << "round " << round;
  }
}

} // namespace
} // namespace parlova::testing
