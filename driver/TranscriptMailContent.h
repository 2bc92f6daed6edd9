// A loaded transcript as the deliveries ask for it.
#pragma once

#include <string>

#include "mail/MailContent.h"
#include "model/ICLPChatLog.h"

namespace parlova {

class TranscriptMailContent final : public MailContent {
public:
  // `contentKey`: what the journal knows the decoded bytes by; nothing when
  // only the chat's dates are asked for.
  TranscriptMailContent(std::string path, ICLPChatLog &log, std::optional<std::string> contentKey)
      : path_(std::move(path)), log_(log), contentKey_(std::move(contentKey)) {}

  const std::string &transcriptPath() const override { return path_; }
  std::optional<std::string> contentKey() const override { return contentKey_; }
  // The first message's time.
  std::optional<double> chatStart() const override;
  MailMessage message(const std::string &to, const std::string &from) override;

private:
  std::string path_;
  ICLPChatLog &log_;
  std::optional<std::string> contentKey_;
};

} // namespace parlova
