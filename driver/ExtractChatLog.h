#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"

namespace parlova {

// Carries one loaded transcript through the pipeline. Returns when the
// transcript is to stay where it is; ends the process once the transcript
// has been carried to the end or an email error stands.
void ExtractChatLog(const std::string &path, ICLPChatLog *log);

// The pipeline up to the archives: the settings, the end-of-chat judgement,
// the email and the standing error, with their log lines.
struct ChatLogPreparation {
  enum class Outcome {
    NotLoaded,   // no transcript: stays
    LeftOpen,    // the chat is not over: stays for a later run
    MailFailed,  // the email could not be handed to a server: stays
    ErrorStands, // errorStatus is set: nothing is archived
    CannotFinish, // its archiving could not be finished: nothing was sent
    Ready        // archive it
  };
  Outcome outcome = Outcome::NotLoaded;
  bool handleURLs = false;
  bool handleImages = false;
  bool mailed = false; // the server took the email
};
// `beforeMail` runs once the chat is judged over and before anything is
// sent; when it answers false nothing is sent (CannotFinish).
ChatLogPreparation PrepareChatLog(const std::string &path, ICLPChatLog *log,
                                  const std::function<bool()> &beforeMail);

// Why a transcript could not be carried to its end: the archive folder
// cannot be made, is no writable folder (a file, a link to nothing, a
// read-only file system), or the name it would get there is too long.
// Checked before anything is sent or archived; nothing when all is well.
std::optional<std::string> WhyArchivingCannotFinish(const std::filesystem::path &transcript);
// Says so in the log and in reportThis.
void ReportArchivingCannotFinish(const std::string &why);

// ~/Documents/iChats (Parlovaed), where processed transcripts go.
std::filesystem::path ArchiveFolder();
// Where a transcript goes in ~/Documents/iChats (Parlovaed): its own name,
// or with " #2", " #2 #3", ... when that is taken.
std::filesystem::path ArchiveTargetFor(const std::filesystem::path &transcript);
// The move into the archive folder that ends a transcript's processing,
// and the email failure count set back. A catch-up leaves a count that
// stands at 0 already as it is, which writes the same settings file.
enum class FailureCountReset { Always, WhenNotZero };
// False when the move failed ("FAILED" and the reason are logged).
bool MoveToArchiveFolder(const std::filesystem::path &transcript, const std::filesystem::path &target,
                         FailureCountReset reset = FailureCountReset::Always,
                         Durability durability = Durability::Now);

// Puts right what a run that ended half-way through a transcript, or a
// catch-up half-way through a batch, left: its archives back as they were,
// its due move made, or its batch's moved transcripts added to the archives.
// Only while no other run can be working. False when that could not be
// done (a full disk): the run must end and leave it to the next.
bool FinishInterruptedArchiving();

} // namespace parlova
