// A catch-up's next transcript made ready on a thread of its own while the
// current one is carried through: read, decoded, named and, where its mail
// depends on nothing but the transcript, its mail composed. That is about
// half of a transcript's work, done by a second processor; everything that
// reaches the disk is still done by the main thread, in the order it was.
#pragma once

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <sys/types.h>
#include <variant>

#include "driver/TranscriptMailContent.h"
#include "model/ICLPChatLog.h"

namespace parlova {

class TranscriptPrefetch {
public:
  // What the mail is made with, read from the settings by the main thread
  // (the other one reads no settings). Without `compose` no mail is made.
  struct MailAhead {
    bool compose = false;
    bool escapeHTML = false;
    std::optional<std::string> to;
    std::optional<std::string> from;
    bool operator==(const MailAhead &) const = default;
  };
  struct Prepared {
    bool readable = false;
    std::variant<ICLPChatLog, std::string> loaded = std::string();
    std::string contentKey; // empty when the file could not be read
    std::optional<MailboxMessage> mail;
    MailAhead madeWith;
  };

  TranscriptPrefetch();
  ~TranscriptPrefetch();
  TranscriptPrefetch(const TranscriptPrefetch &) = delete;
  TranscriptPrefetch &operator=(const TranscriptPrefetch &) = delete;

  // Begins making `path` ready, unless the thread is still at the one
  // before; what was made ready and not taken is let go.
  void begin(const std::filesystem::path &path, MailAhead mail);
  // `path` made ready, when it is the one begun and its file has not
  // changed since it was read; otherwise read and decoded here, without
  // its mail.
  Prepared take(const std::filesystem::path &path);

  // The work itself, on the caller's thread.
  static Prepared prepare(const std::filesystem::path &path, const MailAhead &mail);

private:
  struct Stamp {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    long long modified = 0; // nanoseconds
    long long changed = 0;
    bool operator==(const Stamp &) const = default;
  };
  static Stamp stampOf(const std::filesystem::path &path);
  void work();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<std::filesystem::path> asked_;
  MailAhead askedMail_;
  bool working_ = false;
  bool stopping_ = false;
  std::optional<std::filesystem::path> readyPath_;
  std::optional<Prepared> ready_;
  Stamp readyStamp_;
  std::thread thread_; // last: it starts once the rest is made
};

} // namespace parlova
