// Messages stored into a Maildir, as the convention asks: written whole
// into tmp/, flushed, then renamed into cur/, so that a reader never sees
// half a message; and each message at most once, known by its name.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "mail/FramedMessage.h"
#include "platform/FileManager.h"

namespace parlova {

class MaildirFolder {
public:
  // The Maildir itself for an empty folder name, else its Maildir++
  // sub-folder ("Chats" is ".Chats").
  MaildirFolder(std::filesystem::path maildir, const std::string &folderName);

  enum class Outcome { Stored, AlreadyThere, Failed };
  struct Result {
    Outcome outcome;
    std::string reason; // for Failed: what went wrong, with the path
  };

  // `name` says which message it is: the same message always has the same
  // name, and one whose name is in cur/ or new/ already is not stored again
  // (a mail reader may have changed its flags, never its name). The file's
  // times are `modified` (seconds since 1970); it is stored as seen. With
  // Durability::ByNextSync the message waits in tmp/ and is put into cur/
  // by the next DeferredSyncs::flushAll(), once its bytes are on the disk.
  Result store(const std::string &name, const FramedMessage &message, double modified,
               Durability durability = Durability::Now) const;

  const std::filesystem::path &folder() const { return folder_; }

private:
  std::filesystem::path folder_;
  bool subFolder_;
};

} // namespace parlova
