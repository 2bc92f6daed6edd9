// ~/Documents/iChats (Parlovaed), where processed transcripts go: the name
// each gets there, the move that ends its processing, and whether it can
// be moved there at all.
#pragma once

#include <filesystem>
#include <optional>
#include <unordered_set>
#include <vector>
#include <string>

#include "platform/FileManager.h"

namespace parlova {

std::filesystem::path ArchiveFolder();
// The transcripts there, relative to it, in the walk's order.
std::vector<std::string> ProcessedTranscripts();
// Where a transcript goes in `archiveFolder`: its own name, or with " #2",
// " #2 #3", ... when that is taken.
// Names in `alsoTaken` count as taken: moves that are due but not made.
std::filesystem::path ArchiveTargetIn(const std::filesystem::path &archiveFolder,
                                      const std::filesystem::path &transcript,
                                      const std::unordered_set<std::string> &alsoTaken = {});
// The same in ArchiveFolder().
std::filesystem::path ArchiveTargetFor(const std::filesystem::path &transcript);

// The move into the archive folder that ends a transcript's processing,
// and the email failure count set back. A catch-up leaves a count that
// stands at 0 already as it is, which writes the same settings file.
enum class FailureCountReset { Always, WhenNotZero };
// False when the move failed ("FAILED" and the reason are logged).
bool MoveToArchiveFolder(const std::filesystem::path &transcript, const std::filesystem::path &target,
                         FailureCountReset reset = FailureCountReset::Always);
// The same in two steps, for moves made later in a group: what is logged
// and set when the move is decided, and the move itself.
void AnnounceMoveToArchiveFolder(const std::filesystem::path &transcript, const std::filesystem::path &target,
                                 FailureCountReset reset);
bool MakeMoveToArchiveFolder(const std::filesystem::path &transcript, const std::filesystem::path &target,
                             Durability durability);

// Why a transcript could not be carried to its end: the archive folder
// cannot be made, is no writable folder (a file, a link to nothing, a
// read-only file system), or `target`, the name a transcript would get
// there, is too long. Checked before anything is sent or archived; nothing
// when all is well.
std::optional<std::string> WhyArchivingCannotFinish(const std::filesystem::path &target);
// Says so in the log and in reportThis.
void ReportArchivingCannotFinish(const std::string &why);

// Why `transcript` cannot be taken out of its folder (a folder that cannot
// be written, a read-only file system); nothing when it can.
std::optional<std::string> WhyTranscriptCannotLeave(const std::filesystem::path &transcript);
// Says so in the log and in reportThis; the transcript stays.
void ReportTranscriptCannotLeave(const std::filesystem::path &transcript, const std::string &why);

} // namespace parlova
