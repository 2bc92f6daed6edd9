// One SMTP session carrying one message, through the Pantomime mail
// framework. Only mail/SmtpSession.mm knows that it is Objective-C; its
// events arrive through the main thread's run loop.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mail/TlsTunnel.h"

namespace parlova {

// The transcript email: one To recipient, a multipart/alternative body with
// the plain text first and the HTML (UTF-8) second.
struct MailMessage {
  std::string subject;
  std::string from;
  std::string to;
  std::string plainText;
  std::vector<uint8_t> html;
};

class SmtpSessionDelegate {
public:
  virtual ~SmtpSessionDelegate() = default;
  virtual void authenticationCompleted() = 0;
  virtual void authenticationFailed() = 0;
  virtual void messageSent() = 0;
  virtual void messageNotSent() = 0;
  virtual void connectionTimedOut() = 0;
};

// Where the message goes and how the connection is secured.
struct MailServer {
  std::string host;
  unsigned port = 25;
  MailSecurity security = MailSecurity::None;
  std::string caFile;  // empty: the system's certificate store
  bool verify = true;  // the certificate and the host name, when secured
};

class SmtpSession {
public:
  SmtpSession(const MailServer &server, const MailMessage &message);
  ~SmtpSession();
  SmtpSession(const SmtpSession &) = delete;
  SmtpSession &operator=(const SmtpSession &) = delete;

  void setDelegate(SmtpSessionDelegate *delegate);
  // 0 when the connection is open, anything else when it failed.
  int connect();
  // After a failed connect(): why the connection could not be secured, or
  // nothing when the server could not be reached at all.
  const std::optional<std::string> &securityFailure() const { return securityFailure_; }
  // A one-shot timer on the current run loop.
  void scheduleTimer(double seconds, std::function<void()> fired);
  // Runs the run loop once in its default mode with no time limit; false
  // when it had nothing to run.
  bool runRunLoopOnce();
  void authenticate(const std::string &username, const std::string &password, const std::string &mechanism);
  void sendMessage();
  // The server's last reply, as bytes.
  std::vector<uint8_t> lastResponse() const;

  // How long the framework waits on a silent server before it reports a
  // time-out: its own default, or $PARLOVA_SMTP_TIMEOUT_SECONDS.
  static unsigned timeoutSeconds();

private:
  struct Objects;
  MailServer server_;
  std::unique_ptr<TlsTunnel> tunnel_;
  std::optional<std::string> securityFailure_;
  std::unique_ptr<Objects> objects_;
};

} // namespace parlova
