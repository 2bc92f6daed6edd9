#include "driver/TranscriptMailContent.h"

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
  message.html = fixed_ ? log_.HTMLChatLog(fixed_->escapeHTML) : log_.HTMLChatLog();
  message.plainText = log_.PlainChatLog();
  return message;
}

} // namespace parlova
