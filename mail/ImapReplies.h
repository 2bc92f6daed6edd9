// What an IMAP server says, one response at a time: a line together with
// the literals it announces, read whole. The server chooses every byte, so
// a response is bounded in size, and waiting for one in silence and in
// time.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <variant>

namespace parlova {

class ImapReplies {
public:
  enum class Failure {
    Closed,   // the connection ended
    TimedOut, // silent for too long, or past the deadline
    Stopped,  // the run was asked to stop
    TooLong,  // more than kLongest in one response
  };
  struct Waiting {
    std::chrono::steady_clock::duration silence;
    std::chrono::steady_clock::time_point deadline;
    std::function<bool()> keepGoing;
  };
  // A listing of a folder's many messages comes as many responses; a
  // SEARCH answer of 100,000 numbers is well under a megabyte.
  static constexpr size_t kLongest = 16u << 20;

  explicit ImapReplies(int fd) : fd_(fd) {}

  // The next response without its final line end; a literal's bytes follow
  // the "{n}" that announced it and its line end.
  std::variant<std::string, Failure> next(const Waiting &waiting);

private:
  std::variant<size_t, Failure> fill(const Waiting &waiting);

  int fd_;
  std::string pending_;
};

} // namespace parlova
