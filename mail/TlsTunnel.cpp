#include "mail/TlsTunnel.h"

#include "platform/FileDescriptor.h"

#include <arpa/inet.h>
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <netdb.h>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <utility>
#include <unistd.h>
#include <vector>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace parlova {

namespace {

struct SslContextDeleter {
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
struct SslDeleter {
  void operator()(SSL *ssl) const { SSL_free(ssl); }
};
using SslContextPtr = std::unique_ptr<SSL_CTX, SslContextDeleter>;
using SslPtr = std::unique_ptr<SSL, SslDeleter>;

// The EHLO name the mail framework uses too.
constexpr std::string_view kClientName = "localhost.localdomain";
// No SMTP reply is anywhere near this long; a server sending more is not
// one to talk to.
constexpr size_t kLongestReply = 64 * 1024;

void setTimeouts(int fd, unsigned seconds) {
  const timeval limit{static_cast<time_t>(seconds), 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

FileDescriptor connectTo(const std::string &host, unsigned port, unsigned timeoutSeconds) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
    return {};
  FileDescriptor connected;
  for (const addrinfo *address = found; address && !connected; address = address->ai_next) {
    FileDescriptor candidate(socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol));
    if (!candidate)
      continue;
    setTimeouts(candidate.get(), timeoutSeconds); // bounds connect() too
    if (connect(candidate.get(), address->ai_addr, address->ai_addrlen) == 0)
      connected = std::move(candidate);
  }
  freeaddrinfo(found);
  return connected;
}

bool sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0)
      return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

using Clock = std::chrono::steady_clock;

// What is left of the exchange's time, for poll(); 0 once it has run out.
int millisecondsLeft(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(std::min<long long>(left, 1 << 30)) : 0;
}

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

std::string lastSslError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0)
    return "the connection ended during the handshake";
  const char *reason = ERR_reason_error_string(code);
  return reason ? reason : "error " + std::to_string(code);
}

struct Secured {
  SslContextPtr context;
  SslPtr ssl;
};

std::variant<Secured, std::string> handshake(int fd, const TlsOptions &options) {
  SslContextPtr context(SSL_CTX_new(TLS_client_method()));
  if (!context)
    return "TLS handshake failed: " + lastSslError();
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  if (options.verify) {
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    const bool loaded = options.caFile.empty()
                            ? SSL_CTX_set_default_verify_paths(context.get()) == 1
                            : SSL_CTX_load_verify_locations(context.get(), options.caFile.c_str(), nullptr) == 1;
    if (!loaded) {
      ERR_clear_error();
      return "TLS handshake failed: no certificates could be read from " +
             (options.caFile.empty() ? std::string("the system's store") : options.caFile);
    }
  }
  SslPtr ssl(SSL_new(context.get()));
  if (!ssl)
    return "TLS handshake failed: " + lastSslError();
  SSL_set_fd(ssl.get(), fd);
  in6_addr ignored;
  const bool isAddress = inet_pton(AF_INET, options.host.c_str(), &ignored) == 1 ||
                         inet_pton(AF_INET6, options.host.c_str(), &ignored) == 1;
  if (!isAddress)
    SSL_set_tlsext_host_name(ssl.get(), options.host.c_str());
  if (options.verify) {
    X509_VERIFY_PARAM *checks = SSL_get0_param(ssl.get());
    if (isAddress)
      X509_VERIFY_PARAM_set1_ip_asc(checks, options.host.c_str());
    else
      X509_VERIFY_PARAM_set1_host(checks, options.host.c_str(), 0);
  }
  if (SSL_connect(ssl.get()) != 1) {
    const long verdict = SSL_get_verify_result(ssl.get());
    if (options.verify && verdict != X509_V_OK) {
      ERR_clear_error();
      return std::string("TLS handshake failed: the server's certificate was refused (") +
             X509_verify_cert_error_string(verdict) + ")";
    }
    return "TLS handshake failed: " + lastSslError();
  }
  return Secured{std::move(context), std::move(ssl)};
}

// Greeting, EHLO, STARTTLS; nothing of the user's is sent before the
// upgrade. An empty answer means the server agreed to start TLS.
std::string negotiateStartTls(int fd, Clock::time_point deadline) {
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

// An address as the kernel's socket table shows it.
std::string hexAddress(const sockaddr_in &address) {
  char text[16];
  std::snprintf(text, sizeof text, "%08X:%04X", static_cast<unsigned>(address.sin_addr.s_addr),
                static_cast<unsigned>(ntohs(address.sin_port)));
  return text;
}

std::optional<unsigned long> socketInode(const sockaddr_in &local, const sockaddr_in &remote) {
  std::ifstream table("/proc/net/tcp");
  const std::string localText = hexAddress(local), remoteText = hexAddress(remote);
  std::string line;
  std::getline(table, line); // the column names
  while (std::getline(table, line)) {
    char localColumn[64], remoteColumn[64];
    unsigned long inode = 0;
    // sl local rem st tx:rx tr:when retransmits uid timeout inode
    if (std::sscanf(line.c_str(), " %*s %63s %63s %*s %*s %*s %*s %*s %*s %lu", localColumn, remoteColumn, &inode) == 3 &&
        localText == localColumn && remoteText == remoteColumn)
      return inode;
  }
  return std::nullopt;
}

bool ownsSocket(unsigned long inode) {
  DIR *descriptors = opendir("/proc/self/fd");
  if (!descriptors)
    return false;
  const std::string wanted = "socket:[" + std::to_string(inode) + "]";
  bool found = false;
  while (const dirent *entry = readdir(descriptors)) {
    char target[64];
    const std::string path = std::string("/proc/self/fd/") + entry->d_name;
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length > 0 && std::string_view(target, static_cast<size_t>(length)) == wanted) {
      found = true;
      break;
    }
  }
  closedir(descriptors);
  return found;
}

// Anyone on the machine can connect to a loopback port, and what the relay
// carries is the mail and the login. So the peer is looked up in the
// kernel's socket table (the entry whose local end is the peer's address)
// and its inode must be one of this process's own descriptors.
bool connectedFromThisProcess(int accepted) {
  sockaddr_in ours{}, theirs{};
  socklen_t ourLength = sizeof ours, theirLength = sizeof theirs;
  if (getsockname(accepted, reinterpret_cast<sockaddr *>(&ours), &ourLength) != 0 ||
      getpeername(accepted, reinterpret_cast<sockaddr *>(&theirs), &theirLength) != 0 ||
      theirs.sin_family != AF_INET)
    return false;
  const auto inode = socketInode(theirs, ours);
  return inode && ownsSocket(*inode);
}

} // namespace

struct TlsTunnel::State {
  Secured secured;
  FileDescriptor server;
  FileDescriptor listener;
  unsigned port = 0;
  std::string greeting; // what the framework reads first, for STARTTLS
  LogFunction log = nullptr;
  int wake[2] = {-1, -1};
  std::thread relay;

  ~State() {
    if (wake[1] >= 0) {
      const char stop = 0;
      [[maybe_unused]] const ssize_t written = write(wake[1], &stop, 1);
    }
    // Unblocks a relay waiting inside a TLS read.
    if (server)
      shutdown(server.get(), SHUT_RDWR);
    if (relay.joinable())
      relay.join();
    for (const int fd : wake)
      if (fd >= 0)
        close(fd);
  }

  // The framework's connection, once it comes; strangers are turned away
  // meanwhile. The listener is closed then: nobody else gets a turn.
  FileDescriptor acceptFramework(unsigned timeoutSeconds) {
    const auto deadline = Clock::now() + std::chrono::seconds(timeoutSeconds);
    while (true) {
      const int left = millisecondsLeft(deadline);
      pollfd waiting[2] = {{listener.get(), POLLIN, 0}, {wake[0], POLLIN, 0}};
      if (left == 0 || poll(waiting, 2, left) <= 0 || !(waiting[0].revents & POLLIN))
        return {};
      FileDescriptor client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client)
        continue;
      if (connectedFromThisProcess(client.get())) {
        listener = FileDescriptor();
        return client;
      }
      if (log)
        log("Refused a connection to the mail relay that came from another process.");
    }
  }

  void run(unsigned timeoutSeconds) {
    const FileDescriptor client = acceptFramework(timeoutSeconds);
    if (!client)
      return;
    // A framework that stops reading must not hold the relay (and the
    // session's end, which waits for it) for ever.
    setTimeouts(client.get(), timeoutSeconds);
    if (!greeting.empty() && !sendAll(client.get(), greeting))
      return;
    SSL *ssl = secured.ssl.get();
    char buffer[16384];
    while (true) {
      pollfd ready[3] = {{client.get(), POLLIN, 0}, {server.get(), POLLIN, 0}, {wake[0], POLLIN, 0}};
      if (SSL_pending(ssl) == 0 && poll(ready, 3, -1) < 0)
        return;
      if (ready[2].revents)
        return;
      // Readable does not mean application data (TLS 1.3 sends session
      // tickets after the handshake): read until the record layer wants more.
      if (SSL_pending(ssl) > 0 || ready[1].revents) {
        while (true) {
          const int got = SSL_read(ssl, buffer, sizeof buffer);
          if (got > 0) {
            if (!sendAll(client.get(), std::string_view(buffer, static_cast<size_t>(got))))
              return;
            continue;
          }
          const int error = SSL_get_error(ssl, got);
          // The server's end is gone, closed properly or dropped without a
          // TLS close: nothing more will come, and waiting on the socket
          // again would only spin.
          if (error == SSL_ERROR_ZERO_RETURN || error == SSL_ERROR_SYSCALL || error == SSL_ERROR_SSL)
            return;
          if (error != SSL_ERROR_WANT_READ || !waitUnlessWanted(ssl, got, true))
            break;
        }
        if (SSL_get_shutdown(ssl) & SSL_RECEIVED_SHUTDOWN)
          return;
      }
      if (ready[0].revents) {
        const ssize_t got = recv(client.get(), buffer, sizeof buffer, 0);
        if (got <= 0 || !writeAll(ssl, buffer, static_cast<int>(got)))
          return;
      }
    }
  }

  // After a TLS call that wants the socket: true when it only wants more
  // to read (the caller goes back to waiting), after waiting for writing
  // room when it wants that. False when the connection is done for.
  bool waitUnlessWanted(SSL *ssl, int result, bool readOnly) {
    const int error = SSL_get_error(ssl, result);
    if (error == SSL_ERROR_WANT_READ && readOnly)
      return false;
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)
      return false;
    pollfd ready[2] = {{server.get(), static_cast<short>(error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0},
                       {wake[0], POLLIN, 0}};
    return poll(ready, 2, -1) > 0 && !ready[1].revents;
  }

  bool writeAll(SSL *ssl, const char *bytes, int length) {
    while (true) {
      const int written = SSL_write(ssl, bytes, length);
      if (written == length)
        return true;
      if (written > 0 || !waitUnlessWanted(ssl, written, false))
        return false;
    }
  }
};

TlsTunnel::TlsTunnel(std::unique_ptr<State> state) : state_(std::move(state)) {}

TlsTunnel::~TlsTunnel() = default;

unsigned TlsTunnel::localPort() const { return state_->port; }

std::variant<std::unique_ptr<TlsTunnel>, TlsTunnel::Failure> TlsTunnel::open(const TlsOptions &options) {
  // A server that goes away mid-write must end a write, not the process.
  std::signal(SIGPIPE, SIG_IGN);
  auto state = std::make_unique<State>();
  state->server = connectTo(options.host, options.port, options.timeoutSeconds);
  if (!state->server)
    return Failure{true, "could not connect"};
  if (options.security == MailSecurity::StartTls) {
    const auto deadline = Clock::now() + std::chrono::seconds(options.timeoutSeconds);
    const bool imap = options.protocol == MailProtocol::Imap;
    std::string refused = imap ? negotiateImapStartTls(state->server.get(), deadline)
                               : negotiateStartTls(state->server.get(), deadline);
    if (!refused.empty()) {
      if (Clock::now() >= deadline)
        refused = "the server did not answer within " + std::to_string(options.timeoutSeconds) + " seconds";
      return Failure{false, refused};
    }
    // The framework starts over behind the tunnel, so it is greeted again.
    state->greeting = imap ? "* OK IMAP4rev1 ready\r\n" : "220 " + options.host + " ESMTP\r\n";
  }
  auto secured = handshake(state->server.get(), options);
  if (auto *reason = std::get_if<std::string>(&secured))
    return Failure{false, *reason};
  state->secured = std::move(std::get<Secured>(secured));
  // From here the session's own time-out watches, and the relay waits on
  // both ends at once.
  setTimeouts(state->server.get(), 0);
  fcntl(state->server.get(), F_SETFL, fcntl(state->server.get(), F_GETFL) | O_NONBLOCK);

  state->listener = FileDescriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in loopback{};
  loopback.sin_family = AF_INET;
  loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof loopback;
  if (!state->listener || bind(state->listener.get(), reinterpret_cast<sockaddr *>(&loopback), sizeof loopback) != 0 ||
      listen(state->listener.get(), 1) != 0 ||
      getsockname(state->listener.get(), reinterpret_cast<sockaddr *>(&loopback), &length) != 0 ||
      pipe2(state->wake, O_CLOEXEC) != 0)
    return Failure{false, std::string("no loopback connection for the mail framework: ") + std::strerror(errno)};
  state->port = ntohs(loopback.sin_port);
  state->log = options.log;
  State *relay = state.get();
  state->relay = std::thread([relay, timeout = options.timeoutSeconds] { relay->run(timeout); });
  return std::make_unique<TlsTunnel>(std::move(state));
}

} // namespace parlova
