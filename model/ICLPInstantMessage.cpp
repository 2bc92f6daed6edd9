#include "model/ICLPInstantMessage.h"

#include "foundation/FoundationValues.h"
#include "foundation/Unicode.h"

namespace parlova {
namespace {

std::shared_ptr<const AttributedString> textFrom(const ObjectRef &object) {
  if (auto attributed = objectAs<AttributedString>(object))
    return attributed;
  // Some writers store an unstyled message as a plain string.
  if (const auto plain = objectAs<StringObject>(object))
    return std::make_shared<AttributedString>(utf8ToUtf16(plain->value()));
  return nullptr;
}

// A time no chat can have had is damage: the message is undated, for the
// pages, the history, the charts and the search alike.
std::optional<Date> dateFrom(const ObjectRef &object) {
  if (const auto date = objectAs<DateObject>(object); date && date->date().isChatTime())
    return date->date();
  return std::nullopt;
}

} // namespace

std::shared_ptr<const ICLPInstantMessage> ICLPInstantMessage::initWithCoder(Coder &coder) {
  if (coder.allowsKeyedCoding()) {
    auto speaker = objectAs<ICLPPresentity>(coder.decodeObjectForKey("Sender"));
    const auto timestamp = dateFrom(coder.decodeObjectForKey("Time"));
    auto string = textFrom(coder.decodeObjectForKey("MessageText"));
    const auto mystery = static_cast<uint32_t>(coder.decodeInt32ForKey("Flags"));
    return std::make_shared<ICLPInstantMessage>(std::move(speaker), std::move(string), timestamp, mystery);
  }
  // The iChat 2 stream's order, which has no names to go by: speaker, time,
  // text, then the flag word.
  auto speaker = objectAs<ICLPPresentity>(coder.decodeObject());
  const auto timestamp = dateFrom(coder.decodeObject());
  auto string = textFrom(coder.decodeObject());
  const uint32_t mystery = coder.decodeUnsignedInt();
  return std::make_shared<ICLPInstantMessage>(std::move(speaker), std::move(string), timestamp, mystery);
}

std::optional<std::string> ICLPInstantMessage::Speaker() const {
  if (!speaker_)
    return std::nullopt;
  return speaker_->Name();
}

std::optional<std::string> ICLPInstantMessage::rawSpeaker() const {
  if (!speaker_)
    return std::nullopt;
  return speaker_->rawName();
}

bool ICLPInstantMessage::isStatusMessage() const { return !speaker_ || !string_ || string_->length() == 0; }

std::string ICLPInstantMessage::PlainString() const {
  if (!string_)
    return {};
  // A missing name prints as Foundation prints nil.
  return Speaker().value_or("(null)") + ": " + utf16ToUtf8(string_->string()) + "\n";
}

AttributedString ICLPInstantMessage::LoggedString() const {
  AttributedStringBuilder logged;
  if (speaker_)
    logged.append(*speaker_->RichName());
  logged.append(u": ");
  if (string_)
    logged.append(*string_);
  logged.append(u"\n\n");
  return std::move(logged).build();
}

std::string ICLPInstantMessage::description() const {
  return (speaker_ ? speaker_->rawName() : std::string("(status)")) + ": " +
         (string_ ? utf16ToUtf8(string_->string()) : std::string());
}

} // namespace parlova
