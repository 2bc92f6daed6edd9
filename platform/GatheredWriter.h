// Writes a file's pieces to a descriptor as they are handed over: small ones
// (a page's items) gathered into writes of 64 KiB, a large one as it is, so
// that a file of a hundred megabytes is never held whole and one of many
// small pieces is not a write for each.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace parlova {

// Who takes a file's pieces one after another, and who makes them for it.
using PieceSink = std::function<void(std::string_view)>;
using PieceMaker = std::function<void(const PieceSink &)>;

class GatheredWriter {
public:
  explicit GatheredWriter(int fd) : fd_(fd) {}
  // After a write has failed, pieces are taken and dropped.
  void add(std::string_view piece);
  // Writes what is gathered. Whether every byte reached the file; if not,
  // errno is what the failing write left, whatever ran after it.
  bool finish();

private:
  void writeOut(std::string_view bytes);

  int fd_;
  bool complete_ = true;
  int error_ = 0;
  std::string gathered_;
};

} // namespace parlova
