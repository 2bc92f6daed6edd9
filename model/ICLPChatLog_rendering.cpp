// The plain, styled and HTML renderings of a transcript.
#include <cmath>
#include <cstdio>
#include <functional>

#include "context/Settings.h"
#include "foundation/HtmlText.h"
#include "foundation/TextAttributes.h"
#include "foundation/Unicode.h"
#include "model/ICLPChatLog.h"
#include "model/InsertStringAndTrackIndices.h"

#ifndef PARLOVA_WEB_ADDRESS
#define PARLOVA_WEB_ADDRESS "http://www.hollowmere.com/parlova/"
#endif

namespace parlova {

namespace {

constexpr std::string_view kWebAddress = PARLOVA_WEB_ADDRESS;
constexpr std::u16string_view kHead = u"<html><head><title>Parlova log</title></head><body>";

int truncated(double value) {
  if (!std::isfinite(value) || value >= 2147483647.0 || value <= -2147483648.0)
    return 0;
  return static_cast<int>(value);
}

// A colour component as a byte of the tag: cut to an integer, then times
// 255, in the wrapping arithmetic of the machine's integers, so a damaged
// component far outside 0 to 1 gives some number instead of undefined
// behaviour.
unsigned colourByte(double component) { return static_cast<unsigned>(truncated(component)) * 255u; }

// The tags one run gets, in the fixed order colour, font, link, attachment.
// Tags are not nested: a run with colour and font reads
// <colour><font>text</colour></font>, which is the required output.
struct RunTags {
  std::vector<std::u16string> openings; // inserted at the run's start
  std::vector<std::u16string> closings; // inserted at the run's end
  std::optional<std::u16string> attachmentLabel;
};

// With `escaping` (the setting escapeHTML), what came from the transcript
// (font names, link addresses, attachment names) is escaped, and a link
// whose scheme may not become one gets no tag.
RunTags tagsFor(const TextAttributes &attributes, bool escaping) {
  const auto typed = [escaping](const std::string &text) { return escaping ? escapedForHtml(text) : text; };
  RunTags tags;
  if (const auto color = objectAs<Color>(attributes.valueForName(kForegroundColorAttributeName))) {
    if (const auto rgb = color->usingDeviceRGB()) {
      // The cut to an integer comes before the multiplication, so only a
      // full 1.0 gives ff: this order is kept.
      char tag[64];
      std::snprintf(tag, sizeof tag, "<font color=\"#%02x%02x%02x\">", colourByte(rgb->red), colourByte(rgb->green),
                    colourByte(rgb->blue));
      tags.openings.push_back(utf8ToUtf16(tag));
      tags.closings.push_back(u"</font>");
    }
  }
  if (const auto font = objectAs<Font>(attributes.valueForName(kFontAttributeName))) {
    tags.openings.push_back(utf8ToUtf16("<font face=\"" + typed(font->fontName()) + "\" point-size=\"" +
                                        std::to_string(truncated(font->pointSize())) + "\">"));
    tags.closings.push_back(u"</font>");
  }
  if (const ObjectRef link = attributes.valueForName(kLinkAttributeName)) {
    const auto url = objectAs<URLObject>(link);
    const std::string address = url ? url->absoluteString() : link->description();
    if (!escaping || hasLinkableScheme(address)) {
      tags.openings.push_back(utf8ToUtf16("<a href=\"" + typed(address) + "\">"));
      tags.closings.push_back(u"</a>");
    }
  }
  if (const auto attachment = objectAs<TextAttachment>(attributes.valueForName(kAttachmentAttributeName))) {
    const auto &wrapper = attachment->fileWrapper();
    const auto name = wrapper ? wrapper->preferredFilename() : std::nullopt;
    tags.attachmentLabel = name && !name->empty() ? u"[" + utf8ToUtf16(typed(*name)) + u"]" : u"[attached item]";
  }
  return tags;
}

std::string footer() {
  return "<br><hr><i>Sent by <a href=\"" + std::string(kWebAddress) + "\">Parlova</a>.</i>";
}

// The page is defined in UTF-16 and written in UTF-8: it is collected a
// stretch at a time and handed on converted, never cutting between the two
// halves of a surrogate pair, so that the bytes are those of converting the
// whole page at once.
class Utf8Pieces {
public:
  explicit Utf8Pieces(const std::function<void(std::string_view)> &piece) : piece_(piece) {}
  Utf8Pieces &operator+=(std::u16string_view text) {
    buffer_ += text;
    if (buffer_.size() >= kStretch)
      handOn(false);
    return *this;
  }
  void finish() { handOn(true); }

private:
  static constexpr size_t kStretch = 32 * 1024;
  void handOn(bool all) {
    size_t cut = buffer_.size();
    if (!all && cut > 0 && buffer_[cut - 1] >= 0xD800 && buffer_[cut - 1] <= 0xDBFF)
      --cut;
    if (cut > 0)
      piece_(utf16ToUtf8(std::u16string_view(buffer_).substr(0, cut)));
    buffer_.erase(0, cut);
  }
  const std::function<void(std::string_view)> &piece_;
  std::u16string buffer_;
};

// The conversion is defined through a position table: every tag is inserted
// at the current position of a styled-text index, pushing that index past
// it. Everything inserted at one index therefore lands before that index's
// character, in the order of insertion. Runs are walked in order, and a
// run's closing tags fall at the next run's start ahead of that run's
// opening tags, so the table's result is simply, run after run: the opening
// tags (and an attachment's label), the run's characters, its closing tags.
// Written out that way the conversion takes linear time.
void appendHtmlRuns(Utf8Pieces &html, const AttributedString &styled, bool escaping) {
  std::u16string characters;
  for (const AttributeRun &run : styled.runs()) {
    const RunTags tags = tagsFor(*run.attributes, escaping);
    for (const auto &opening : tags.openings)
      html += opening;
    characters.clear();
    styled.appendCharacters(characters, run.location, run.length);
    std::u16string_view text = characters;
    if (tags.attachmentLabel) {
      // The label goes before the blank that replaces the attachment's
      // character.
      html += *tags.attachmentLabel;
      html += u" ";
      text.remove_prefix(1);
    }
    if (escaping)
      html += escapedForHtml(text);
    else
      html += text;
    for (const auto &closing : tags.closings)
      html += closing;
  }
}

} // namespace

void InsertStringAndTrackIndices(std::u16string &target, std::vector<int32_t> &table, const std::u16string &text,
                                 int32_t from, int32_t count) {
  target.insert(static_cast<size_t>(table[static_cast<size_t>(from)]), text);
  for (int32_t i = from; i < count; ++i)
    table[static_cast<size_t>(i)] += static_cast<int32_t>(text.size());
}

std::string ICLPChatLog::PlainChatLog() const {
  std::string plain;
  writePlainChatLog([&plain](std::string_view piece) { plain += piece; });
  return plain;
}

void ICLPChatLog::writePlainChatLog(const std::function<void(std::string_view)> &piece) const {
  constexpr size_t kStretch = 32 * 1024;
  // No line break after the header: the first message follows directly.
  std::string plain = "Sent by Parlova ( " + std::string(kWebAddress) + " )";
  for (const auto &message : messages()) {
    if (message->isStatusMessage())
      continue;
    plain += message->PlainString();
    if (plain.size() >= kStretch) {
      piece(plain);
      plain.clear();
    }
  }
  piece(plain);
}

AttributedString ICLPChatLog::RichChatLog() const {
  AttributedStringBuilder rich;
  for (const auto &message : messages()) {
    if (message->isStatusMessage())
      continue;
    rich.append(message->LoggedString());
    rich.append(u"<br>\n");
  }
  rich.append(utf8ToUtf16(footer()));
  return std::move(rich).build();
}

std::vector<uint8_t> ICLPChatLog::HTMLChatLog() const { return HTMLChatLog(appSettings().boolValue("escapeHTML")); }

namespace {

// A long chat's page is counted first, so that it is made once at its size
// and a page of a hundred megabytes is never held twice while it grows. A
// short one is made in one pass: growing it costs less than making it twice.
template <class Bytes> Bytes collectedHtml(const ICLPChatLog &log, bool escaping) {
  constexpr size_t kCountedFirst = 20000; // messages, a page of about 5 MB
  Bytes html;
  if (log.messages().size() > kCountedFirst) {
    size_t size = 0;
    log.writeHTMLChatLog(escaping, [&size](std::string_view piece) { size += piece.size(); });
    html.reserve(size);
  }
  log.writeHTMLChatLog(escaping, [&html](std::string_view piece) { html.insert(html.end(), piece.begin(), piece.end()); });
  return html;
}

} // namespace

std::vector<uint8_t> ICLPChatLog::HTMLChatLog(bool escaping) const {
  return collectedHtml<std::vector<uint8_t>>(*this, escaping);
}

std::string ICLPChatLog::HTMLChatLogText(bool escaping) const { return collectedHtml<std::string>(*this, escaping); }

void ICLPChatLog::writeHTMLChatLog(bool escaping, const std::function<void(std::string_view)> &piece) const {
  Utf8Pieces html(piece);
  html += kHead;
  // Message by message. The styled transcript joins two runs into one only
  // where neither has tags: a message ends in line breaks without
  // attributes, and so do the breaks put between. So this is its
  // conversion too; and only the transcript's text is escaped, not the
  // line breaks and the footer.
  for (const auto &message : messages()) {
    if (message->isStatusMessage())
      continue;
    appendHtmlRuns(html, message->LoggedString(), escaping);
    html += u"<br>\n";
  }
  html += utf8ToUtf16(footer());
  html += u"</body></html>";
  html.finish();
}

} // namespace parlova
