#include "platform/GatheredWriter.h"

#include <cerrno>
#include <unistd.h>

namespace parlova {

namespace {

constexpr size_t kGathered = 64 * 1024;

} // namespace

void GatheredWriter::add(std::string_view piece) {
  if (!complete_)
    return;
  if (gathered_.size() + piece.size() > kGathered && !gathered_.empty()) {
    writeOut(gathered_);
    gathered_.clear();
  }
  if (piece.size() >= kGathered)
    writeOut(piece);
  else
    gathered_ += piece;
}

bool GatheredWriter::finish() {
  if (complete_ && !gathered_.empty())
    writeOut(gathered_);
  gathered_.clear();
  if (!complete_)
    errno = error_;
  return complete_;
}

void GatheredWriter::writeOut(std::string_view bytes) {
  size_t written = 0;
  while (complete_ && written < bytes.size()) {
    const ssize_t n = write(fd_, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      error_ = errno;
      complete_ = false;
    } else {
      written += static_cast<size_t>(n);
    }
  }
}

} // namespace parlova
