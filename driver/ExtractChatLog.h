// The pipeline: one loaded transcript carried through the end-of-chat
// judgement, the email, the links, pictures, statistics, history and chat
// library, and the move into the archive folder. A single run, a catch-up
// and a repaired batch all go this one way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "driver/TranscriptArchives.h"
#include "driver/TranscriptMailContent.h"
#include "mail/Delivery.h"
#include "model/ICLPChatLog.h"

namespace parlova {

struct Extraction {
  enum class Outcome {
    NotLoaded,    // no transcript: stays
    LeftOpen,     // the chat is not over: stays for a later run
    MailWaits,    // the email could not be handed to a server: stays
    ErrorStands,  // errorStatus is set: nothing is archived
    CannotLeave,  // it cannot be moved out of its folder: stays, nothing sent
    CannotFinish, // its archiving could not be begun: nothing was sent
    NotArchived,  // mailed, but nothing archived or moved
    NotMoved,     // archived, but the move failed
    Moved,        // carried to the end
  };
  Outcome outcome = Outcome::NotLoaded;
  bool mailed = false; // the server or the mailbox took the email
  TranscriptArchives::Added added;
  std::string why; // for CannotLeave, CannotFinish and NotArchived
  std::filesystem::path target; // for NotMoved: where it was to go
};

// `contentKey` names the bytes `log` was decoded from
// (TranscriptJournal::Identity::key), which the history and a mailbox know
// the chat by; `delivery` is the run's way out for mail, kept from one
// transcript to the next. Nothing here ends the process; the caller
// decides from the outcome whether the run goes on. `composed`: the mail,
// made beforehand with the delivery's addresses, for the delivery to take.
Extraction ExtractChatLog(const std::string &path, ICLPChatLog *log, const std::string &contentKey,
                          TranscriptArchives &archives, Delivery &delivery,
                          std::optional<MailboxMessage> composed = std::nullopt);

} // namespace parlova
