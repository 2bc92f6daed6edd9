#include "driver/TranscriptMailContent.h"

#include "context/Settings.h"

namespace parlova {

std::optional<double> TranscriptMailContent::chatStart() const {
  for (const auto &message : log_.messages())
    if (const auto time = message->TimeStamp())
      return time->timeIntervalSince1970();
  return std::nullopt;
}

MailMessage TranscriptMailContent::message(const std::string &to, const std::string &from) {
  MailMessage message;
  message.subject = fixed_ ? fixed_->subject : log_.subjectForEmail();
  message.from = from;
  message.to = to;
  const bool escaping = fixed_ ? fixed_->escapeHTML : appSettings().boolValue("escapeHTML");
  const ICLPChatLog &log = log_;
  if (fixed_) {
    // Composed ahead on a thread of its own, which is there to do this
    // work, and kept after the transcript has moved: the bodies are made
    // now.
    message.html = log.HTMLChatLogText(escaping);
    message.plainText = log.PlainChatLog();
    return message;
  }
  message.html = MessageBody::madeBy([&log, escaping](const PieceSink &piece) {
    log.writeHTMLChatLog(escaping, piece);
  });
  message.plainText = MessageBody::madeBy([&log](const PieceSink &piece) { log.writePlainChatLog(piece); });
  return message;
}

} // namespace parlova
