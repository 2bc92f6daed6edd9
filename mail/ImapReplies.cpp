#include "mail/ImapReplies.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <optional>
#include <string_view>
#include <poll.h>
#include <sys/socket.h>

namespace parlova {

namespace {

using Clock = std::chrono::steady_clock;

// How often a silent wait looks whether the run is to stop.
constexpr auto kSlice = std::chrono::milliseconds(200);

// The size a line's end announces: "{123}" or "{123+}"; nothing for a
// line without one.
std::optional<size_t> literalAnnounced(std::string_view line) {
  if (line.empty() || line.back() != '}')
    return std::nullopt;
  const size_t open = line.rfind('{');
  if (open == std::string_view::npos)
    return std::nullopt;
  std::string_view digits = line.substr(open + 1, line.size() - open - 2);
  if (!digits.empty() && digits.back() == '+')
    digits.remove_suffix(1);
  if (digits.empty() || digits.size() > 10 ||
      !std::all_of(digits.begin(), digits.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }))
    return std::nullopt;
  return std::stoull(std::string(digits));
}

} // namespace

std::variant<size_t, ImapReplies::Failure> ImapReplies::fill(const Waiting &waiting) {
  const auto silentUntil = Clock::now() + waiting.silence;
  while (true) {
    if (waiting.keepGoing && !waiting.keepGoing())
      return Failure::Stopped;
    const auto now = Clock::now();
    const auto until = std::min(silentUntil, waiting.deadline);
    if (now >= until)
      return Failure::TimedOut;
    const auto slice = std::min<Clock::duration>(kSlice, until - now);
    pollfd readable{fd_, POLLIN, 0};
    const int ready =
        poll(&readable, 1, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(slice).count()));
    if (ready < 0 && errno != EINTR)
      return Failure::Closed;
    if (ready <= 0)
      continue;
    char chunk[65536];
    const ssize_t got = recv(fd_, chunk, sizeof chunk, 0);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (got <= 0)
      return Failure::Closed;
    pending_.append(chunk, static_cast<size_t>(got));
    return static_cast<size_t>(got);
  }
}

std::variant<std::string, ImapReplies::Failure> ImapReplies::next(const Waiting &waiting) {
  std::string response;
  while (true) {
    const size_t end = pending_.find('\n');
    if (end == std::string::npos) {
      if (response.size() + pending_.size() > kLongest)
        return Failure::TooLong;
      if (const auto filled = fill(waiting); std::holds_alternative<Failure>(filled))
        return std::get<Failure>(filled);
      continue;
    }
    const size_t lineEnd = end > 0 && pending_[end - 1] == '\r' ? end - 1 : end;
    const std::string_view line(pending_.data(), lineEnd);
    const auto literal = literalAnnounced(line);
    if (response.size() + line.size() > kLongest || (literal && *literal > kLongest - response.size() - line.size()))
      return Failure::TooLong;
    response.append(line);
    pending_.erase(0, end + 1);
    if (!literal)
      return response;
    response += "\r\n";
    while (pending_.size() < *literal)
      if (const auto filled = fill(waiting); std::holds_alternative<Failure>(filled))
        return std::get<Failure>(filled);
    response.append(pending_, 0, *literal);
    pending_.erase(0, *literal);
  }
}

} // namespace parlova
