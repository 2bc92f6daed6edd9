// A catch-up's archives: held in memory and written, with the pages built
// from them, at commit points. Until a commit the journal keeps the
// archives of the last one and notes every transcript before it is
// archived and moved, so that the next run finishes a batch cut short (a
// kill, a full disk): it puts the kept archives back and adds the batch's
// moved transcripts to them again.
#pragma once

#include <chrono>

#include "driver/TranscriptArchives.h"
#include "driver/TranscriptJournal.h"
#include "generator/ArchiveBatch.h"

namespace parlova {

class ArchivesInBatches final : public TranscriptArchives {
public:
  ArchivesInBatches();

  std::optional<std::string> begin(const std::filesystem::path &transcript) override;
  void abandon() override {}
  std::variant<Added, std::string> archive(const ICLPChatLog &log, const std::filesystem::path &transcript,
                                           const std::filesystem::path &target, const Stages &stages) override;
  // The move is made final by the commit's sync, not by one of its own.
  bool move(const std::filesystem::path &transcript, const std::filesystem::path &target) override;

  // Whether the batch holds `every` transcripts or has been open for
  // `seconds`.
  bool due(size_t every, double seconds) const;
  // Writes the archives and pages and forgets the batch. On failure (logged)
  // the journal stays, and the next run finishes the batch from it.
  bool commit();

private:
  using Clock = std::chrono::steady_clock;
  TranscriptJournal journal_;
  ArchiveBatch archives_;
  bool open_ = false;
  size_t size_ = 0;
  Clock::time_point opened_;
};

} // namespace parlova
