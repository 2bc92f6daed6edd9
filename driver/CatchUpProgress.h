// What a person at a terminal sees of a catch-up: one line, redrawn in
// place, with how far it is, how fast it goes, the time left and the file
// in hand. Off the terminal (systemd, cron) or when asked to be quiet, it
// draws nothing.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace parlova {

class CatchUpProgress {
public:
  CatchUpProgress(size_t total, bool quiet);
  ~CatchUpProgress();
  CatchUpProgress(const CatchUpProgress &) = delete;
  CatchUpProgress &operator=(const CatchUpProgress &) = delete;

  // Log lines written meanwhile stand above the line; clear() takes it away.
  void clear();
  void show(size_t done, const std::string &current);

  // "1:05", "2:03:40".
  static std::string clockText(double seconds);

private:
  size_t total_;
  bool visible_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace parlova
