// A single run's archives: each stage reads and writes its own files at
// once, and the journal names the one transcript in hand.
#pragma once

#include "driver/TranscriptArchives.h"
#include "driver/TranscriptJournal.h"

namespace parlova {

class ArchivesNow final : public TranscriptArchives {
public:
  ArchivesNow();

  std::optional<std::string> begin(const std::filesystem::path &transcript) override;
  void abandon() override;
  std::variant<Added, std::string> archive(const ICLPChatLog &log, const std::filesystem::path &transcript,
                                           const std::filesystem::path &target, const Stages &stages) override;
  std::filesystem::path targetFor(const std::filesystem::path &transcript) override;
  bool move(const std::filesystem::path &transcript, const std::filesystem::path &target) override;

private:
  TranscriptJournal journal_;
};

} // namespace parlova
