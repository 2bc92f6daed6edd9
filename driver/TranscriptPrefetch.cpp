#include "driver/TranscriptPrefetch.h"

#include <algorithm>
#include <sys/stat.h>

#include "driver/TranscriptJournal.h"
#include "mail/MailboxComposer.h"
#include "platform/FileManager.h"

namespace parlova {

namespace fs = std::filesystem;

TranscriptPrefetch::TranscriptPrefetch() : thread_([this] { work(); }) {}

TranscriptPrefetch::~TranscriptPrefetch() {
  {
    const std::scoped_lock lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

TranscriptPrefetch::Stamp TranscriptPrefetch::stampOf(const fs::path &path) {
  struct stat status{};
  if (stat(path.c_str(), &status) != 0)
    return {};
  const auto nanoseconds = [](const timespec &time) { return time.tv_sec * 1'000'000'000LL + time.tv_nsec; };
  return {true, status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
          nanoseconds(status.st_ctim)};
}

bool TranscriptPrefetch::hasRoomFor(uintmax_t bytes) {
  const std::scoped_lock lock(mutex_);
  if (bytes > kMostBytesAhead)
    return false;
  return asked_.empty() || (asked_.size() < kMostAhead && bytesAsked_ + bytes <= kMostBytesAhead);
}

void TranscriptPrefetch::ask(const fs::path &path, MailAhead mail, uintmax_t bytes) {
  {
    const std::scoped_lock lock(mutex_);
    Asked asked;
    asked.number = ++numbered_;
    asked.path = path;
    asked.mail = std::move(mail);
    asked.bytes = bytes;
    asked_.push_back(std::move(asked));
    bytesAsked_ += bytes;
  }
  changed_.notify_all();
}

TranscriptPrefetch::Prepared TranscriptPrefetch::take(const fs::path &path) {
  std::optional<Prepared> prepared;
  Stamp stamp;
  {
    std::unique_lock lock(mutex_);
    const auto wanted = std::find_if(asked_.begin(), asked_.end(), [&](const Asked &each) { return each.path == path; });
    // One not asked for (too large to be held ahead) is made here, and
    // those asked after it stay asked.
    if (wanted != asked_.end()) {
      for (auto each = asked_.begin(); each != wanted; ++each)
        bytesAsked_ -= each->bytes;
      asked_.erase(asked_.begin(), wanted);
      changed_.wait(lock, [this] { return asked_.front().done; });
      prepared = std::move(asked_.front().prepared);
      stamp = asked_.front().stamp;
      bytesAsked_ -= asked_.front().bytes;
      asked_.pop_front();
    }
  }
  // Read before the chat was judged over: the bytes count only if the file
  // is still the one they were read from.
  if (prepared && stamp.exists && stampOf(path) == stamp)
    return std::move(*prepared);
  return prepare(path, {});
}

void TranscriptPrefetch::work() {
  bool composed = false;
  std::unique_lock lock(mutex_);
  const auto nextToMake = [this] {
    return std::find_if(asked_.begin(), asked_.end(), [](const Asked &each) { return !each.done; });
  };
  for (;;) {
    changed_.wait(lock, [&] { return stopping_ || nextToMake() != asked_.end(); });
    if (stopping_) {
      lock.unlock();
      if (composed)
        SmtpSession::leaveThread();
      return;
    }
    const auto next = nextToMake();
    const uint64_t number = next->number;
    const fs::path path = next->path;
    const MailAhead mail = next->mail;
    composed = composed || mail.compose;
    lock.unlock();
    // Stamped before it is read: a change while it is read shows as one.
    const Stamp stamp = stampOf(path);
    std::optional<Prepared> prepared;
    try {
      prepared = prepare(path, mail);
    } catch (...) {
      // Made again by the main thread, where a failure is reported.
    }
    lock.lock();
    // Unless it was let go meanwhile.
    const auto made = std::find_if(asked_.begin(), asked_.end(), [&](const Asked &each) { return each.number == number; });
    if (made != asked_.end()) {
      made->prepared = std::move(prepared);
      made->stamp = stamp;
      made->done = true;
    }
    changed_.notify_all();
  }
}

TranscriptPrefetch::Prepared TranscriptPrefetch::prepare(const fs::path &path, const MailAhead &mail) {
  Prepared prepared;
  prepared.madeWith = mail;
  auto read = readFileContents(path);
  prepared.readable = read.has_value();
  std::vector<uint8_t> contents = std::move(read).value_or(std::vector<uint8_t>{});
  prepared.loaded = ICLPChatLog::load(path, contents);
  // Named, then let go: a transcript may be tens of megabytes.
  if (prepared.readable)
    prepared.contentKey = TranscriptJournal::identityOf(contents).key();
  contents = std::vector<uint8_t>();
  auto *log = std::get_if<ICLPChatLog>(&prepared.loaded);
  if (!mail.compose || !log || !prepared.readable)
    return prepared;
  TranscriptMailContent content(path.string(), *log, prepared.contentKey,
                                TranscriptMailContent::Fixed{log->plainSubjectForEmail(), mail.escapeHTML});
  auto made = MailboxComposer::make(content, mail.to, mail.from);
  if (auto *message = std::get_if<MailboxMessage>(&made))
    prepared.mail = std::move(*message);
  return prepared;
}

} // namespace parlova
