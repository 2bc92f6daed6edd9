#include "mail/MailboxComposer.h"

#include "foundation/Date.h"
#include "platform/Log.h"

namespace parlova {

std::optional<MailboxMessage> MailboxComposer::compose(MailContent &content, const std::optional<std::string> &to,
                                                      const std::optional<std::string> &from) {
  if (auto composed = content.takeComposed())
    return composed;
  auto made = make(content, to, from);
  if (auto *why = std::get_if<std::string>(&made)) {
    logLine(*why);
    return std::nullopt;
  }
  return std::move(std::get<MailboxMessage>(made));
}

std::variant<MailboxMessage, std::string> MailboxComposer::make(MailContent &content,
                                                               const std::optional<std::string> &to,
                                                               const std::optional<std::string> &from) {
  const auto key = content.contentKey();
  if (!key)
    return formatText("Could not store the mail: %@ cannot be read.", {content.transcriptPath()});
  MailboxMessage stored;
  stored.name = MailboxMessage::kNamePrefix + *key;
  const std::string sender = from.value_or("");
  const size_t at = sender.rfind('@');
  const std::string domain = at == std::string::npos || at + 1 == sender.size() ? "localhost" : sender.substr(at + 1);
  const std::optional<double> chatTime = content.chatStart();
  stored.chatTime = chatTime.value_or(Date::now().timeIntervalSince1970());

  MailMessage message = content.message(to.value_or(""), sender);
  message.messageId = stored.name + "@" + domain;
  message.date = chatTime;
  message.labelledParts = true;
  auto framed = SmtpSession::framedMessage(std::move(message));
  if (const auto *why = std::get_if<std::string>(&framed))
    return formatText("Could not load the mail module: %@", {*why});
  stored.message = std::move(std::get<FramedMessage>(framed));
  return stored;
}

} // namespace parlova
