#include "mail/StartTlsNegotiation.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <vector>

namespace parlova {

using Clock = std::chrono::steady_clock;

bool sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0)
      return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

int millisecondsLeft(Clock::time_point deadline) {
  // Rounded up: a poll() that wakes a fraction of a millisecond before the
  // deadline would not know the time was up.
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(std::min<long long>(left, 1 << 30)) : 0;
}

namespace {

// The EHLO name the mail framework uses too.
constexpr std::string_view kClientName = "localhost.localdomain";
// No SMTP reply is anywhere near this long; a server sending more is not
// one to talk to.
constexpr size_t kLongestReply = 64 * 1024;

// One whole reply, every line of it without its line end; nothing when the
// connection ends, the deadline passes, or the reply grows past
// kLongestReply in all (a server may not feed continuation lines for ever).
std::optional<std::vector<std::string>> readReply(int fd, std::string &pending, Clock::time_point deadline) {
  std::vector<std::string> lines;
  size_t replied = 0;
  while (true) {
    const auto end = pending.find('\n');
    if (end == std::string::npos) {
      if (replied + pending.size() > kLongestReply)
        return std::nullopt;
      pollfd readable{fd, POLLIN, 0};
      if (poll(&readable, 1, millisecondsLeft(deadline)) <= 0)
        return std::nullopt;
      char chunk[4096];
      const ssize_t got = recv(fd, chunk, sizeof chunk, 0);
      if (got <= 0)
        return std::nullopt;
      pending.append(chunk, static_cast<size_t>(got));
      continue;
    }
    std::string line = pending.substr(0, end);
    pending.erase(0, end + 1);
    replied += end + 1;
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    lines.push_back(line);
    if (line.size() < 4 || line[3] != '-')
      return lines;
  }
}

bool replyCodeIs(const std::vector<std::string> &reply, std::string_view code) {
  return !reply.empty() && reply.back().compare(0, 3, code) == 0;
}

// The extension keyword of each EHLO line: "250-STARTTLS" gives "STARTTLS".
bool offers(const std::vector<std::string> &ehloReply, std::string_view extension) {
  for (const auto &line : ehloReply) {
    if (line.size() < 4)
      continue;
    const size_t blank = line.find(' ', 4);
    std::string keyword = line.substr(4, blank == std::string::npos ? std::string::npos : blank - 4);
    for (char &c : keyword)
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (keyword == extension)
      return true;
  }
  return false;
}

// IMAP's untagged and tagged lines, up to and including the one that
// carries `tag`; nothing when the connection ends, the deadline passes or
// the answer grows past kLongestReply.
std::optional<std::vector<std::string>> readImapUntil(int fd, std::string &pending, std::string_view tag,
                                                      Clock::time_point deadline) {
  std::vector<std::string> lines;
  size_t replied = 0;
  while (true) {
    const auto end = pending.find('\n');
    if (end == std::string::npos) {
      if (replied + pending.size() > kLongestReply)
        return std::nullopt;
      pollfd readable{fd, POLLIN, 0};
      if (poll(&readable, 1, millisecondsLeft(deadline)) <= 0)
        return std::nullopt;
      char chunk[4096];
      const ssize_t got = recv(fd, chunk, sizeof chunk, 0);
      if (got <= 0)
        return std::nullopt;
      pending.append(chunk, static_cast<size_t>(got));
      continue;
    }
    std::string line = pending.substr(0, end);
    pending.erase(0, end + 1);
    replied += end + 1;
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    const bool last = line.starts_with(std::string(tag) + " ");
    lines.push_back(std::move(line));
    if (last)
      return lines;
  }
}

// Whether an IMAP capability list (a greeting's or a CAPABILITY answer's
// line) names `capability`, as a whole word in any case.
bool imapOffers(const std::vector<std::string> &lines, std::string_view capability) {
  for (const auto &line : lines) {
    std::string upper = line;
    for (char &c : upper)
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (upper.find("CAPABILITY") == std::string::npos)
      continue;
    for (size_t at = upper.find(capability); at != std::string::npos; at = upper.find(capability, at + 1)) {
      const size_t after = at + capability.size();
      if (at > 0 && upper[at - 1] == ' ' && (after == upper.size() || upper[after] == ' ' || upper[after] == ']'))
        return true;
    }
  }
  return false;
}

} // namespace

// Greeting, EHLO, STARTTLS; nothing of the user's is sent before the
// upgrade. An empty answer means the server agreed to start TLS.
std::string negotiateSmtpStartTls(int fd, Clock::time_point deadline) {
  std::string pending;
  const auto greeting = readReply(fd, pending, deadline);
  if (!greeting || !replyCodeIs(*greeting, "220"))
    return "the server did not greet as a mail server does";
  if (!sendAll(fd, "EHLO " + std::string(kClientName) + "\r\n"))
    return "the server closed the connection";
  const auto extensions = readReply(fd, pending, deadline);
  if (!extensions || !replyCodeIs(*extensions, "250"))
    return "the server did not answer EHLO";
  if (!offers(*extensions, "STARTTLS"))
    return "server does not offer STARTTLS";
  if (!sendAll(fd, "STARTTLS\r\n"))
    return "the server closed the connection";
  const auto ready = readReply(fd, pending, deadline);
  if (!ready || !replyCodeIs(*ready, "220"))
    return "server refused STARTTLS";
  if (!pending.empty())
    return "the server sent data before TLS started"; // would be trusted as if secured
  return {};
}

// IMAP's greeting, CAPABILITY and STARTTLS, a tagged command; as for SMTP
// nothing of the user's is sent before the upgrade.
std::string negotiateImapStartTls(int fd, Clock::time_point deadline) {
  std::string pending;
  const auto greeting = readImapUntil(fd, pending, "*", deadline);
  if (!greeting || !greeting->back().starts_with("* OK"))
    return "the server did not greet as a mail server does";
  std::vector<std::string> capabilities = *greeting;
  if (!imapOffers(capabilities, "STARTTLS")) {
    if (!sendAll(fd, "p1 CAPABILITY\r\n"))
      return "the server closed the connection";
    const auto listed = readImapUntil(fd, pending, "p1", deadline);
    if (!listed)
      return "the server did not answer CAPABILITY";
    capabilities = *listed;
  }
  if (!imapOffers(capabilities, "STARTTLS"))
    return "server does not offer STARTTLS";
  if (!sendAll(fd, "p2 STARTTLS\r\n"))
    return "the server closed the connection";
  const auto ready = readImapUntil(fd, pending, "p2", deadline);
  if (!ready || !ready->back().starts_with("p2 OK"))
    return "server refused STARTTLS";
  if (!pending.empty())
    return "the server sent data before TLS started";
  return {};
}

} // namespace parlova
