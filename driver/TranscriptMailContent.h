// A loaded transcript as the deliveries ask for it.
#pragma once

#include <string>

#include "mail/MailContent.h"
#include "model/ICLPChatLog.h"

namespace parlova {

class TranscriptMailContent final : public MailContent {
public:
  TranscriptMailContent(std::string path, ICLPChatLog &log) : path_(std::move(path)), log_(log) {}

  const std::string &transcriptPath() const override { return path_; }
  // The digest the journal knows the transcript's bytes by.
  std::optional<std::string> contentKey() const override;
  // The first message's time.
  std::optional<double> chatStart() const override;
  MailMessage message(const std::string &to, const std::string &from) override;

private:
  std::string path_;
  ICLPChatLog &log_;
};

} // namespace parlova
