#include "driver/TranscriptPrefetch.h"

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

void TranscriptPrefetch::begin(const fs::path &path, MailAhead mail) {
  {
    const std::scoped_lock lock(mutex_);
    if (working_ || asked_)
      return;
    ready_.reset();
    readyPath_.reset();
    asked_ = path;
    askedMail_ = std::move(mail);
  }
  changed_.notify_all();
}

TranscriptPrefetch::Prepared TranscriptPrefetch::take(const fs::path &path) {
  std::optional<Prepared> prepared;
  Stamp stamp;
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !working_ && !asked_; });
    if (ready_ && readyPath_ == path) {
      prepared = std::move(ready_);
      stamp = readyStamp_;
    }
    ready_.reset();
    readyPath_.reset();
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
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || asked_; });
    if (stopping_) {
      lock.unlock();
      if (composed)
        SmtpSession::leaveThread();
      return;
    }
    const fs::path path = std::move(*asked_);
    const MailAhead mail = std::move(askedMail_);
    composed = composed || mail.compose;
    asked_.reset();
    working_ = true;
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
    ready_ = std::move(prepared);
    readyPath_ = path;
    readyStamp_ = stamp;
    working_ = false;
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
