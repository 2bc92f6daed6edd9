#include "mail/TlsTunnel.h"

#include "mail/ServerConnection.h"
#include "mail/StartTlsNegotiation.h"

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

using Clock = std::chrono::steady_clock;

struct SslContextDeleter {
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
struct SslDeleter {
  void operator()(SSL *ssl) const { SSL_free(ssl); }
};
using SslContextPtr = std::unique_ptr<SSL_CTX, SslContextDeleter>;
using SslPtr = std::unique_ptr<SSL, SslDeleter>;

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

// Bounded by the deadline as a whole: a server that sends its handshake a
// byte at a time keeps every read short but must not keep the run.
std::variant<Secured, std::string> handshake(int fd, const TlsOptions &options, Clock::time_point deadline) {
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
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  int result = 0;
  while ((result = SSL_connect(ssl.get())) != 1) {
    const int error = SSL_get_error(ssl.get(), result);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE)
      break;
    pollfd ready{fd, static_cast<short>(error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
    const int left = millisecondsLeft(deadline);
    if (left == 0 || poll(&ready, 1, left) <= 0) {
      ERR_clear_error();
      return "TLS handshake failed: the server did not finish it within " + std::to_string(options.timeoutSeconds) +
             " seconds";
    }
  }
  if (result != 1) {
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
    limitSocketWaits(client.get(), timeoutSeconds);
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
  // One deadline for all that comes before the mail: the connection, what
  // is said before TLS, the handshake.
  const auto deadline = Clock::now() + std::chrono::seconds(options.timeoutSeconds);
  state->server = connectToServer(options.host, options.port, options.timeoutSeconds, deadline);
  if (!state->server)
    return Failure{true, "could not connect"};
  if (options.security == MailSecurity::StartTls) {
    const bool imap = options.protocol == MailProtocol::Imap;
    std::string refused = imap ? negotiateImapStartTls(state->server.get(), deadline)
                               : negotiateSmtpStartTls(state->server.get(), deadline);
    if (!refused.empty()) {
      if (Clock::now() >= deadline)
        refused = "the server did not answer within " + std::to_string(options.timeoutSeconds) + " seconds";
      return Failure{false, refused};
    }
    // The framework starts over behind the tunnel, so it is greeted again.
    state->greeting = imap ? "* OK IMAP4rev1 ready\r\n" : "220 " + options.host + " ESMTP\r\n";
  }
  auto secured = handshake(state->server.get(), options, deadline);
  if (auto *reason = std::get_if<std::string>(&secured))
    return Failure{false, *reason};
  state->secured = std::move(std::get<Secured>(secured));
  // From here the session's own time-out watches, and the relay waits on
  // both ends at once.
  limitSocketWaits(state->server.get(), 0);
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
