#include "driver/CatchUpProgress.h"

#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/Log.h"

namespace parlova {

namespace {

size_t terminalWidth() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 20)
    return size.ws_col;
  return 80;
}

} // namespace

CatchUpProgress::CatchUpProgress(size_t total, bool quiet) : total_(total), visible_(!quiet && isatty(STDERR_FILENO)) {}

CatchUpProgress::~CatchUpProgress() { clear(); }

std::string CatchUpProgress::clockText(double seconds) {
  const long whole = seconds > 0 ? static_cast<long>(seconds + 0.5) : 0;
  char text[32];
  if (whole >= 3600)
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  else
    std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  return text;
}

void CatchUpProgress::clear() {
  if (!drawn_)
    return;
  setStatusLine("");
  drawn_ = false;
}

void CatchUpProgress::show(size_t done, const std::string &current) {
  if (!visible_)
    return;
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  const double rate = elapsed > 0 ? static_cast<double>(done) / elapsed : 0;
  const std::string left = rate > 0 ? clockText(static_cast<double>(total_ - done) / rate) : "-:--";
  char head[96];
  std::snprintf(head, sizeof head, "%zu/%zu  %.1f/s  %s left  ", done, total_, rate, left.c_str());
  std::string line = head + current;
  // Cut at a character boundary so the line never wraps.
  const size_t width = terminalWidth() - 1;
  if (line.size() > width) {
    size_t cut = width;
    while (cut > 0 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80)
      --cut;
    line.resize(cut);
  }
  // Kept below the log lines the transcript writes.
  setStatusLine(line);
  drawn_ = true;
}

} // namespace parlova
