// A catch-up's archives: held in memory and written, with the pages built
// from them, at commit points. Until a commit the journal keeps the
// archives of the last one and notes every transcript before it is
// archived and moved, so that the next run finishes a batch cut short (a
// kill, a power cut, a full disk): it puts the kept archives back, makes
// the moves that were due and adds the batch's transcripts to them again.
//
// Moves are made in groups, at most a second after they are decided: the
// notes that name them are put on the disk first, once for the group.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <unordered_set>
#include <vector>

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
  std::filesystem::path targetFor(const std::filesystem::path &transcript) override;
  // Decides the move; it is made with its group and made final by the
  // commit's sync. False when a move of the group failed: the batch is then
  // left to the next run.
  bool move(const std::filesystem::path &transcript, const std::filesystem::path &target) override;

  // Whether the batch holds `every` transcripts or has been open for
  // `seconds`.
  bool due(size_t every, double seconds) const;
  // Makes the moves still due, writes the archives and pages and forgets
  // the batch. On failure (logged) the journal stays, and the next run
  // finishes the batch from it.
  bool commit();
  // The transcript whose move failed, once one did.
  const std::optional<std::filesystem::path> &unmoved() const { return unmoved_; }

private:
  using Clock = std::chrono::steady_clock;
  TranscriptJournal journal_;
  ArchiveBatch archives_;
  bool open_ = false;
  size_t size_ = 0;
  Clock::time_point opened_;

  bool makeDueMoves();
  struct DueMove {
    std::filesystem::path transcript;
    std::filesystem::path target;
  };
  std::vector<DueMove> due_;
  std::unordered_set<std::string> dueTargets_;
  Clock::time_point firstDue_;
  std::optional<std::filesystem::path> unmoved_;
};

} // namespace parlova
