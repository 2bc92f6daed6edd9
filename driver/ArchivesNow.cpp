#include "driver/ArchivesNow.h"

#include <cerrno>
#include <cstring>

#include "driver/ArchiveFolder.h"
#include "generator/ChatLibrary.h"
#include "generator/ChatRecords.h"
#include "generator/ICLPLogGenerator.h"
#include "generator/PendingHistory.h"
#include "history/ChatHistory.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

ArchivesNow::ArchivesNow() : journal_(ICLPLogGenerator::parlovaFolder()) {}

std::optional<std::string> ArchivesNow::begin(const fs::path &transcript) {
  if (journal_.begin(transcript))
    return std::nullopt;
  logFormat("Could not write %@: %@", journal_.journalFile().string(), std::strerror(errno));
  return "the journal could not be written";
}

void ArchivesNow::abandon() { journal_.clear(); }

std::variant<TranscriptArchives::Added, std::string> ArchivesNow::archive(const ICLPChatLog &log, const fs::path &,
                                                                         const fs::path &target, const Stages &stages) {
  if (stages.links)
    ICLPLogGenerator::GenerateLinkFiles(&log);
  if (stages.images)
    ICLPLogGenerator::GenerateImageFiles(&log);
  // Before the totals, whose page is drawn from the history too.
  if (stages.historyKey) {
    // One record, written while the chat is at hand: a long chat's texts
    // are made as they are written, never held.
    std::vector<ChatRecord> records;
    records.push_back(keptChat(log, ICLPLogGenerator::CountChat(log, ICLPLogGenerator::ReadWordLists()),
                               *stages.historyKey, target, ChatPage::Write, Durability::Now,
                               RecordTexts::MadeAsWritten));
    // Not now (another program writing it, a full disk): a later run.
    if (!ChatHistory::store(records) && !PendingHistory::keep({{*stages.historyKey, target}}))
      return std::string("the history could not be written");
    if (records.front().page)
      ChatLibrary::rebuildIndexPages();
  }
  ICLPLogGenerator::UpdateStatistics(&log);
  return Added{};
}

fs::path ArchivesNow::targetFor(const fs::path &transcript) { return ArchiveTargetFor(transcript); }

bool ArchivesNow::move(const fs::path &transcript, const fs::path &target) {
  if (!journal_.markArchived(target)) {
    // Without the record a later run would undo finished archives; with no
    // journal at all it at worst processes the transcript again.
    logFormat("Could not write %@: %@", journal_.journalFile().string(), std::strerror(errno));
    journal_.clear();
  }
  const bool moved = MoveToArchiveFolder(transcript, target);
  if (moved || !journal_.markMoveFailed(target))
    journal_.clear();
  return moved;
}

} // namespace parlova
