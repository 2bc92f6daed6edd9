// Which transcripts were handed to an SMTP server, and for whom. A mailbox
// can be asked whether it holds a message already; a server that passes
// mail on cannot, so mailing processed transcripts again sends each one
// once per address only by this record.
#pragma once

#include <filesystem>
#include <string>
#include <unordered_set>

namespace parlova {

class SmtpSentRecord {
public:
  // ~/Library/Parlova/.smtp-sent: one line per message, the address and
  // the transcript's content key.
  static std::filesystem::path file();
  // What the record holds now; empty when there is none.
  static SmtpSentRecord read();
  // Adds a message handed over, on the disk before it returns. False when
  // it could not be written (errno tells why).
  static bool add(const std::string &to, const std::string &contentKey);

  bool has(const std::string &to, const std::string &contentKey) const;

private:
  static std::string line(const std::string &to, const std::string &contentKey);
  std::unordered_set<std::string> lines_;
};

} // namespace parlova
