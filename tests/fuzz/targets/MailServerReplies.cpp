// What a mail server says, waiting on a socket that then closes: the input
// is everything the server says, its first byte picking who reads it (the
// relay before TLS starts, for SMTP or IMAP, or the IMAP session's reader
// of whole responses, literals and all).
#include <chrono>
#include <sys/socket.h>
#include <unistd.h>

#include "mail/ImapReplies.h"
#include "mail/StartTlsNegotiation.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Whatever one socket buffer holds: the relay reads at most 64 KiB a reply.
  if (size == 0 || size > 100 * 1024)
    return 0;
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
    return 0;
  const int buffer = 512 * 1024;
  setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  setsockopt(ends[0], SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  parlova::sendAll(ends[1], {reinterpret_cast<const char *>(data) + 1, size - 1});
  shutdown(ends[1], SHUT_WR);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
  if (data[0] & 2) {
    parlova::ImapReplies replies(ends[0]);
    const parlova::ImapReplies::Waiting waiting{std::chrono::milliseconds(500), deadline, {}};
    while (std::holds_alternative<std::string>(replies.next(waiting))) {
    }
  } else if (data[0] & 1) {
    parlova::negotiateImapStartTls(ends[0], deadline);
  } else {
    parlova::negotiateSmtpStartTls(ends[0], deadline);
  }
  close(ends[0]);
  close(ends[1]);
  return 0;
}
