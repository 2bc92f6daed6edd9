// A loaded transcript as the deliveries ask for it.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "mail/MailContent.h"
#include "model/ICLPChatLog.h"

namespace parlova {

class TranscriptMailContent final : public MailContent {
public:
  // `contentKey`: what the journal knows the decoded bytes by; nothing when
  // only the chat's dates are asked for.
  TranscriptMailContent(std::string path, ICLPChatLog &log, std::optional<std::string> contentKey)
      : path_(std::move(path)), log_(log), contentKey_(std::move(contentKey)) {}
  // The message is made from what the settings said when it was asked for,
  // not from the settings, which only the main thread reads: the subject
  // without a counter, and the HTML escaped or not.
  struct Fixed {
    std::string subject;
    bool escapeHTML = false;
  };
  TranscriptMailContent(std::string path, ICLPChatLog &log, std::optional<std::string> contentKey, Fixed fixed)
      : path_(std::move(path)), log_(log), contentKey_(std::move(contentKey)), fixed_(std::move(fixed)) {}
  // A message composed beforehand with the delivery's addresses.
  void offerComposed(std::optional<MailboxMessage> composed) { composed_ = std::move(composed); }

  const std::string &transcriptPath() const override { return path_; }
  std::optional<std::string> contentKey() const override { return contentKey_; }
  // The first message's time.
  std::optional<double> chatStart() const override;
  MailMessage message(const std::string &to, const std::string &from) override;
  std::optional<MailboxMessage> takeComposed() override { return std::exchange(composed_, std::nullopt); }

private:
  std::string path_;
  ICLPChatLog &log_;
  std::optional<std::string> contentKey_;
  std::optional<Fixed> fixed_;
  std::optional<MailboxMessage> composed_;
};

} // namespace parlova
