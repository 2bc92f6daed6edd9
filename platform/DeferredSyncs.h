// Writes left for one flush of their file system: each write notes where
// it was made, and whoever is about to record them as done flushes every
// noted file system once first. A catch-up writes thousands of files
// between two of its records; one flush each instead of two (the file and
// its folder) for every file is what keeps it from waiting on the disk.
#pragma once

#include <filesystem>
#include <functional>

namespace parlova {

class DeferredSyncs {
public:
  // The file system that holds `path` (a file or a folder) has writes that
  // the next flushAll() must put on the disk.
  static void note(const std::filesystem::path &path);
  // What is to happen only once the writes noted before it are on the disk
  // (a name given to a file whose bytes must not be seen half written);
  // false when it failed, with errno saying why.
  static void afterFlush(std::function<bool()> then);
  // Whether a step waits for the next flush: what it finishes is not yet
  // there, even after a kill.
  static bool stepsWaiting();
  // Flushes every noted file system once, then does what waited for that
  // and flushes again what it changed; forgets them all. False when a file
  // system could not be flushed or a waiting step failed (errno says why);
  // what could not be flushed stays noted.
  static bool flushAll();

  // While one lives, a write asked to be on the disk before it returns is
  // left for the flush at the scope's end: for many files that can all be
  // made again (pages), written one after the other.
  class Scope {
  public:
    Scope();
    ~Scope();
    Scope(const Scope &) = delete;
    Scope &operator=(const Scope &) = delete;
  };
  static bool deferring();
};

} // namespace parlova
