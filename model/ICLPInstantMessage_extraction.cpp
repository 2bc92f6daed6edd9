#include "foundation/FoundationValues.h"
#include "foundation/TextAttributes.h"
#include "foundation/Unicode.h"
#include "model/ICLPInstantMessage.h"

namespace parlova {

namespace {

// Walks the text run by run (a run is a stretch of one attribute set) and
// hands over each new object stored under `name`. The same object met again
// right after itself, or after stretches without the attribute, is one
// object, so a link spread over several runs counts once.
template <class Visit>
void forEachNewAttributeValue(const AttributedString &text, std::string_view name, Visit visit) {
  const Object *lastTaken = nullptr;
  for (const AttributeRun &run : text.runs()) {
    if (run.length == 0 || !run.attributes)
      continue;
    const ObjectRef value = run.attributes->valueForName(name);
    if (!value || value.get() == lastTaken)
      continue;
    lastTaken = value.get();
    visit(value);
  }
}

// What a text scanner skips in front of each token: blanks, tabs, line
// breaks and the other Unicode separators.
bool isSkippedBetweenWords(char16_t unit) {
  return (unit >= 0x09 && unit <= 0x0D) || unit == 0x20 || unit == 0x85 || unit == 0xA0 || unit == 0x1680 ||
         (unit >= 0x2000 && unit <= 0x200A) || unit == 0x2028 || unit == 0x2029 || unit == 0x202F ||
         unit == 0x205F || unit == 0x3000;
}

} // namespace

std::string ICLPInstantMessage::SearchableText() const {
  if (isStatusMessage())
    return {};
  std::vector<std::u16string> names;
  forEachNewAttributeValue(*string_, kAttachmentAttributeName, [&](const ObjectRef &value) {
    const auto attachment = objectAs<TextAttachment>(value);
    const auto file = attachment ? attachment->fileWrapper() : nullptr;
    names.push_back(file && file->preferredFilename() ? utf8ToUtf16(*file->preferredFilename()) : u"");
  });
  const std::u16string &said = string_->string();
  if (names.empty())
    return utf16ToUtf8(said);
  // A file's name is a word of its own, never one with the word or link
  // before or after it.
  const auto isSpace = [](char16_t unit) { return unit == u' ' || unit == u'\n' || unit == u'\t' || unit == u'\r'; };
  std::u16string text;
  text.reserve(said.size());
  size_t attached = 0;
  for (size_t i = 0; i < said.size(); ++i) {
    if (said[i] != 0xFFFC || attached >= names.size()) {
      text += said[i];
      continue;
    }
    const std::u16string &name = names[attached++];
    if (name.empty())
      continue;
    if (!text.empty() && !isSpace(text.back()))
      text += u' ';
    text += name;
    if (i + 1 < said.size() && !isSpace(said[i + 1]))
      text += u' ';
  }
  return utf16ToUtf8(text);
}

std::optional<LinkObjectRecord> ICLPInstantMessage::allURLObjects() const {
  if (isStatusMessage() || !hasTime_)
    return std::nullopt;
  auto speaker = Speaker();
  if (!speaker)
    return std::nullopt;
  LinkObjectRecord record{std::move(*speaker), time_, {}};
  forEachNewAttributeValue(*string_, kLinkAttributeName, [&](const ObjectRef &link) {
    if (dynamic_cast<const StringObject *>(link.get()) || dynamic_cast<const URLObject *>(link.get()))
      record.links.push_back(link);
  });
  return record;
}

std::string ICLPInstantMessage::addressOfLink(const Object &link) {
  if (const auto *text = dynamic_cast<const StringObject *>(&link))
    return text->value();
  if (const auto *url = dynamic_cast<const URLObject *>(&link))
    return url->absoluteString();
  return {};
}

std::optional<LinkRecord> ICLPInstantMessage::allURLs() const {
  auto objects = allURLObjects();
  if (!objects)
    return std::nullopt;
  LinkRecord record{std::move(objects->speaker), objects->time, {}};
  record.urls.reserve(objects->links.size());
  for (const ObjectRef &link : objects->links)
    record.urls.push_back(addressOfLink(*link));
  return record;
}

std::optional<ImageRecord> ICLPInstantMessage::allImages() const {
  if (isStatusMessage() || !hasTime_)
    return std::nullopt;
  auto speaker = Speaker();
  if (!speaker)
    return std::nullopt;
  ImageRecord record{std::move(*speaker), time_, {}};
  forEachNewAttributeValue(*string_, kAttachmentAttributeName, [&](const ObjectRef &value) {
    const auto attachment = objectAs<TextAttachment>(value);
    if (attachment && attachment->fileWrapper())
      record.images.push_back(attachment->fileWrapper());
  });
  return record;
}

int32_t ICLPInstantMessage::wordCountInSet(const WordSet *words) const {
  WordCounts counts;
  addWordCounts(words, nullptr, counts);
  return counts.inFirst;
}

void ICLPInstantMessage::addWordCounts(const WordSet *first, const WordSet *second, WordCounts &counts) const {
  if (!speaker_ || !string_)
    return;
  const std::u16string &text = string_->string();
  size_t position = 0;
  for (;;) {
    while (position < text.size() && isSkippedBetweenWords(text[position]))
      ++position;
    if (position >= text.size())
      break;
    size_t end = text.find(u' ', position);
    if (end == std::u16string::npos)
      end = text.size();
    counts.all = wrappingAdd(counts.all, 1);
    if (first || second) {
      const std::string word = utf16ToUtf8(std::u16string_view(text).substr(position, end - position));
      counts.inFirst = wrappingAdd(counts.inFirst, !first || first->contains(word) ? 1 : 0);
      counts.inSecond = wrappingAdd(counts.inSecond, !second || second->contains(word) ? 1 : 0);
    } else {
      counts.inFirst = wrappingAdd(counts.inFirst, 1);
      counts.inSecond = wrappingAdd(counts.inSecond, 1);
    }
    position = end;
  }
}

} // namespace parlova
