#include "driver/ArchivesInBatches.h"

#include <cerrno>
#include <cstring>

#include "driver/ArchiveFolder.h"
#include "generator/ICLPLogGenerator.h"
#include "platform/DeferredSyncs.h"
#include "platform/FileManager.h"
#include "platform/Home.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

ArchivesInBatches::ArchivesInBatches() : journal_(ICLPLogGenerator::parlovaFolder()) {}

// Before the first archive of the batch changes: nothing may change when
// the journal cannot be written.
std::optional<std::string> ArchivesInBatches::begin(const fs::path &) {
  if (open_)
    return std::nullopt;
  if (!journal_.beginBatch()) {
    logFormat("Could not write %@: %@", journal_.journalFile().string(), std::strerror(errno));
    journal_.clear();
    return "the journal could not be written";
  }
  open_ = true;
  opened_ = Clock::now();
  return std::nullopt;
}

std::variant<TranscriptArchives::Added, std::string>
ArchivesInBatches::archive(const ICLPChatLog &log, const fs::path &transcript, const fs::path &target,
                           const Stages &stages) {
  // Noted before anything of it reaches the archives: a batch cut short is
  // finished from these notes, which count a transcript as mailed. A
  // message stored into a Maildir is named only at the group's flush, and
  // its note waits for it; mail a server took is noted at once.
  if (!journal_.noteBatchMove({transcript, target, stages.links, stages.images}, DeferredSyncs::stepsWaiting())) {
    logFormat("Could not write %@: %@", journal_.movesFile().string(), std::strerror(errno));
    return std::string("the journal could not be written");
  }
  ++size_;
  const auto added = archives_.add(log, stages.links, stages.images, stages.historyKey, target);
  return Added{added.links, added.pictures};
}

fs::path ArchivesInBatches::targetFor(const fs::path &transcript) {
  return ArchiveTargetIn(ArchiveFolder(), transcript, dueTargets_);
}

bool ArchivesInBatches::move(const fs::path &transcript, const fs::path &target) {
  if (unmoved_)
    return false;
  AnnounceMoveToArchiveFolder(transcript, target, FailureCountReset::WhenNotZero);
  if (due_.empty())
    firstDue_ = Clock::now();
  due_.push_back({transcript, target});
  dueTargets_.insert(target.string());
  // A group waits at most a second: a kill leaves its moves for the next
  // run, which makes them, but a power cut takes the notes with them, and
  // the transcripts are processed (and mailed) again.
  constexpr size_t kLargestGroup = 1000;
  if (due_.size() < kLargestGroup && Clock::now() - firstDue_ < std::chrono::seconds(1))
    return true;
  return makeDueMoves();
}

bool ArchivesInBatches::makeDueMoves() {
  if (unmoved_)
    return false;
  if (due_.empty())
    return true;
  // The mail and the pages of these transcripts reach the disk (a Maildir
  // message named in cur/) before the notes that count them as done are
  // written.
  if (!DeferredSyncs::flushAll()) {
    logFormat("Could not flush the mail and pages of the batch to the disk: %@", std::string(std::strerror(errno)));
    unmoved_ = due_.front().transcript;
  } else if (!journal_.syncBatchMoves()) {
    logFormat("Could not write %@: %@", journal_.movesFile().string(), std::strerror(errno));
    unmoved_ = due_.front().transcript;
  }
  for (const auto &[transcript, target] : due_) {
    if (unmoved_)
      break;
    if (!MakeMoveToArchiveFolder(transcript, target, Durability::ByNextSync)) {
      // The rest stay due with it: the next run makes them before the
      // batch is added to the archives.
      unmoved_ = transcript;
      break;
    }
  }
  if (unmoved_) {
    logLine("The catch-up could not move every transcript of its batch; the next run moves them and adds the batch "
            "to the archives.");
    return false;
  }
  due_.clear();
  dueTargets_.clear();
  return true;
}

bool ArchivesInBatches::due(size_t every, double seconds) const {
  return open_ && (size_ >= every || Clock::now() - opened_ >= std::chrono::duration<double>(seconds));
}

bool ArchivesInBatches::commit() {
  if (!open_)
    return true;
  // Mail stored for a transcript that then was not archived waits for this
  // flush too, as a batch without moves makes none before it.
  if (!DeferredSyncs::flushAll()) {
    logFormat("Could not flush the mail and pages of the batch to the disk: %@", std::string(std::strerror(errno)));
    return false;
  }
  if (!makeDueMoves())
    return false;
  if (!archives_.commit()) {
    logLine("The catch-up could not write its archives; the next run adds this batch's transcripts to them.");
    return false;
  }
  // The batch's moves reach the disk before the journal that could redo
  // them is gone: a move undone by a power cut after that would bring a
  // counted transcript back.
  syncFileSystemOf(ArchiveFolder());
  syncFileSystemOf(homeDirectory() / "Documents/iChats");
  journal_.clear();
  open_ = false;
  size_ = 0;
  return true;
}

} // namespace parlova
