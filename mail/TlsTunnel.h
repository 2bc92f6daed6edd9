// A secured connection to the mail server, handed to the mail framework as
// a plain one on the loopback address. The framework cannot be trusted with
// TLS: the build Debian ships has none, and the upstream code verifies no
// certificate. So the connection is secured and the certificate checked
// here, before the framework sends a single byte; from then on a relay
// thread carries the framework's plain SMTP or IMAP over TLS.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "context/MailServerSetting.h"

namespace parlova {

// What is spoken through the tunnel: it decides how STARTTLS is asked for.
enum class MailProtocol { Smtp, Imap };

// Where the module's log lines go: the program's log, handed across the
// module boundary.
using LogFunction = void (*)(std::string_view line);

struct TlsOptions {
  MailSecurity security = MailSecurity::StartTls; // StartTls or Tls
  MailProtocol protocol = MailProtocol::Smtp;
  std::string host;
  unsigned port = 0;
  std::string caFile; // empty: the system's certificate store
  bool verify = true; // the certificate chain and the host name
  unsigned timeoutSeconds = 60;
  LogFunction log = nullptr;
};

class TlsTunnel {
public:
  // Why there is no tunnel. `unreachable` when no TCP connection could be
  // made at all, which is the plain case's "could not connect"; otherwise
  // `reason` says what went wrong with securing it.
  struct Failure {
    bool unreachable = false;
    std::string reason;
  };

  static std::variant<std::unique_ptr<TlsTunnel>, Failure> open(const TlsOptions &options);

  // Made by open(); what it holds is known only there.
  struct State;
  explicit TlsTunnel(std::unique_ptr<State> state);
  ~TlsTunnel();
  TlsTunnel(const TlsTunnel &) = delete;
  TlsTunnel &operator=(const TlsTunnel &) = delete;

  // Where the framework connects: 127.0.0.1 at this port.
  unsigned localPort() const;

private:
  std::unique_ptr<State> state_;
};

} // namespace parlova
