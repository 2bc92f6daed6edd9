// The transcript decoders as a fuzz target: libFuzzer's entry point, also
// driven by our own mutation runner.
#include "tests/fuzz/TranscriptFuzzTarget.h"

#include "foundation/CalendarFormat.h"
#include "foundation/TextAttributes.h"
#include "model/ICLPChatLog.h"

using namespace parlova;

namespace {

size_t walk(const ICLPChatLog &log) {
  size_t touched = log.description().size() + log.participants().size();
  log.forEachURLRecord([&touched](const LinkRecord &record) { touched += record.urls.size(); });
  log.forEachImageRecord([&touched](const ImageRecord &record) { touched += record.images.size(); });
  const WordSet words{"lol", "the"};
  touched += static_cast<size_t>(log.CountWordsForUserInSet(&words));
  touched += static_cast<size_t>(log.CountWordsForOthersInSet(nullptr));
  for (const auto &message : log.messages()) {
    touched += message->rawSpeaker().value_or("").size();
    if (message->TimeStamp())
      touched += describeDate(*message->TimeStamp()).size();
    const auto &text = message->string();
    if (!text)
      continue;
    for (size_t i = 0; i < text->length(); i += text->attributesAtIndex(i).length) {
      for (const auto &[name, value] : text->attributesAtIndex(i).attributes->entries()) {
        if (const auto color = objectAs<Color>(value))
          touched += color->usingDeviceRGB().has_value();
        if (const auto url = objectAs<URLObject>(value))
          touched += url->absoluteString().size();
        if (const auto attachment = objectAs<TextAttachment>(value); attachment && attachment->fileWrapper())
          touched += attachment->fileWrapper()->regularFileContents().size() +
                     attachment->fileWrapper()->fileWrappers().size();
      }
    }
  }
  return touched;
}

} // namespace

bool decodeTranscriptFormat(const uint8_t *data, size_t size, ICLPChatLog::Format format) {
  const auto log = ICLPChatLog::initWithArchiveData({data, size}, format, "fuzz");
  if (log) {
    walk(*log);
    log->PlainChatLog();
    log->HTMLChatLog();
  }
  return log.has_value();
}

int decodeTranscriptBytes(const uint8_t *data, size_t size) {
  int loaded = 0;
  for (const auto format : {ICLPChatLog::Format::iChat2, ICLPChatLog::Format::iChat3})
    loaded += decodeTranscriptFormat(data, size, format) ? 1 : 0;
  return loaded;
}
