#include "mail/ServerConnection.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include "mail/StartTlsNegotiation.h"

namespace parlova {

unsigned mailTimeoutSeconds() {
  constexpr unsigned kDefault = 60;
  const char *configured = std::getenv("PARLOVA_SMTP_TIMEOUT_SECONDS");
  if (!configured || !*configured)
    return kDefault;
  const long seconds = std::strtol(configured, nullptr, 10);
  return seconds > 0 ? static_cast<unsigned>(seconds) : kDefault;
}

void limitSocketWaits(int fd, unsigned seconds) {
  const timeval limit{static_cast<time_t>(seconds), 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

FileDescriptor connectToServer(const std::string &host, unsigned port, unsigned timeoutSeconds,
                               std::chrono::steady_clock::time_point deadline) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
    return {};
  FileDescriptor connected;
  for (const addrinfo *address = found; address && !connected; address = address->ai_next) {
    FileDescriptor candidate(
        socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address->ai_protocol));
    if (!candidate)
      continue;
    bool made = connect(candidate.get(), address->ai_addr, address->ai_addrlen) == 0;
    if (!made && errno == EINPROGRESS) {
      pollfd writable{candidate.get(), POLLOUT, 0};
      int error = 0;
      socklen_t length = sizeof error;
      made = poll(&writable, 1, millisecondsLeft(deadline)) == 1 &&
             getsockopt(candidate.get(), SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
    }
    if (!made)
      continue;
    fcntl(candidate.get(), F_SETFL, fcntl(candidate.get(), F_GETFL) & ~O_NONBLOCK);
    // A command and the message after it go out together, not a round
    // trip apart.
    const int on = 1;
    setsockopt(candidate.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    limitSocketWaits(candidate.get(), timeoutSeconds);
    connected = std::move(candidate);
  }
  freeaddrinfo(found);
  return connected;
}

} // namespace parlova
