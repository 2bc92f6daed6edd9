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

std::optional<MailboxMessage> TranscriptMailContent::takeComposed(const std::optional<std::string> &to,
                                                                  const std::optional<std::string> &from) {
  if (!composed_ || composed_->to != to || composed_->from != from)
    return std::nullopt;
  std::optional<MailboxMessage> message = std::move(composed_->message);
  composed_.reset();
  return message;
}

} // namespace parlova
