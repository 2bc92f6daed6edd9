// Chats whose rows the history could not take when their transcripts were
// processed (another program writing it, a full disk): noted by key and by
// where the transcript went, and written by a later run, which reads the
// transcript again. The pipeline goes on meanwhile; no row is lost.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace parlova {

class PendingHistory {
public:
  struct Chat {
    std::string key;
    std::filesystem::path transcript;
  };

  // ~/Library/Parlova/.history-pending.plist.
  static std::filesystem::path file();

  // Adds `chats` to the notes, on the disk before it returns (logged). False
  // when they could not be written; errno tells why.
  static bool keep(const std::vector<Chat> &chats);

  // Writes the noted chats into the history, rebuilds the pages drawn from
  // it and forgets them; when the history still cannot take them they stay
  // noted for the next run. Logged either way.
  static void writeDue();
};

} // namespace parlova
