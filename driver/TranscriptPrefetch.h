// A catch-up's next transcripts made ready on a thread of its own while the
// current one is carried through: read, decoded, named and, where its mail
// depends on nothing but the transcript, its mail composed. That is about
// half of a transcript's work, done by a second processor; everything that
// reaches the disk is still done by the main thread, in the order it was.
// Several are made ready ahead, so that a transcript that takes the thread
// longer than the main thread takes for the one before does not hold the
// main thread up; how many is bounded by their count and their bytes.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
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

  static constexpr size_t kMostAhead = 32;
  static constexpr uintmax_t kMostBytesAhead = 16u << 20;

  // Whether a transcript of `bytes` may be asked for now: one of any size
  // up to the bound when none waits, otherwise while count and bytes allow.
  bool hasRoomFor(uintmax_t bytes);
  // Asks for `path` (of `bytes`) to be made ready after those asked before.
  void ask(const std::filesystem::path &path, MailAhead mail, uintmax_t bytes);
  // `path` made ready, when it was asked for and its file has not changed
  // since it was read; otherwise read and decoded here, without its mail.
  // Those asked before it and not taken are let go.
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

  struct Asked {
    uint64_t number = 0;
    std::filesystem::path path;
    MailAhead mail;
    uintmax_t bytes = 0;
    bool done = false;
    Stamp stamp;
    std::optional<Prepared> prepared;
  };

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Asked> asked_; // in the order of the walk
  uintmax_t bytesAsked_ = 0;
  uint64_t numbered_ = 0;
  bool stopping_ = false;
  std::thread thread_; // last: it starts once the rest is made
};

} // namespace parlova
