// An SMTP session carrying one message, or one after another, through the
// Pantomime mail framework. Only mail/PantomimeSessions.mm knows that it is Objective-C; its
// events arrive through the main thread's run loop.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "mail/FramedMessage.h"
#include "mail/TlsTunnel.h"

namespace parlova {

// The transcript email: one To recipient, a multipart/alternative body with
// the plain text first and the HTML (UTF-8) second.
struct MailMessage {
  std::string subject;
  std::string from;
  std::string to;
  MessageBody plainText;
  MessageBody html; // UTF-8
  // For a mailbox: the Date header (seconds since 1970; none: now) and the
  // Message-ID without its angle brackets (empty: one of the framework's).
  std::optional<double> date;
  std::string messageId;
  // For a mailbox, whose readers go by the labels alone: each text part
  // names its character set, and one that is not plain ASCII goes
  // quoted-printable. Off, the parts are as SMTP has always sent them.
  bool labelledParts = false;
  // How each body goes (TextPartBody::encodingFor), chosen by prepared()
  // and messageBytes() from the bodies themselves.
  bool plainQuotedPrintable = false;
  bool htmlQuotedPrintable = false;
  // Filled in by SmtpSession::open() for a message with a date: its bytes,
  // sent as they are.
  std::vector<uint8_t> raw;
};

class SmtpSessionDelegate {
public:
  virtual ~SmtpSessionDelegate() = default;
  virtual void authenticationCompleted() = 0;
  virtual void authenticationFailed() = 0;
  virtual void messageSent() = 0;
  virtual void messageNotSent() = 0;
  virtual void connectionTimedOut() = 0;
  // The server has greeted and named its extensions.
  virtual void serviceInitialized() {}
  // The answer to RSET, before another message on the same connection.
  virtual void transactionResetCompleted() {}
  virtual void transactionResetFailed() {}
};

// Where the message goes and how the connection is secured, with the log
// the module writes to.
struct MailServer : MailServerSetting {
  LogFunction log = nullptr; // filled in by open()
};

// An SMTP session, its first message given when it is opened. The
// implementation lives in a module of its own (the mail framework, GNUstep
// and OpenSSL), loaded the first time a mail is sent, so that runs that
// send nothing never load it.
class SmtpSession {
public:
  // The session, or why the mail module could not be loaded.
  static std::variant<std::unique_ptr<SmtpSession>, std::string> open(const MailServer &server,
                                                                      const MailMessage &message);
  // The message as a session takes it: its headers made fit, and its bytes
  // made when it has a date of its own.
  static std::variant<MailMessage, std::string> prepared(const MailMessage &message);

  // The message's bytes, exactly as a session would send them, for
  // delivery into a mailbox; or why the mail module could not be loaded.
  static std::variant<std::vector<uint8_t>, std::string> messageBytes(const MailMessage &message);
  // The same, its bytes made as they are written; the bodies are moved in.
  static std::variant<FramedMessage, std::string> framedMessage(MailMessage message);
  // Before a thread other than the main one ends that made messages: the
  // framework lets go of what it keeps for the thread, which it cannot do
  // safely once the thread is gone.
  static void leaveThread();

  virtual ~SmtpSession() = default;

  virtual void setDelegate(SmtpSessionDelegate *delegate) = 0;
  // 0 when the connection is open, anything else when it failed.
  virtual int connect() = 0;
  // After a failed connect(): why the connection could not be secured, or
  // nothing when the server could not be reached at all.
  virtual const std::optional<std::string> &securityFailure() const = 0;
  // A one-shot timer on the current run loop.
  virtual void scheduleTimer(double seconds, std::function<void()> fired) = 0;
  // Runs the run loop once in its default mode with no time limit; false
  // when it had nothing to run.
  virtual bool runRunLoopOnce() = 0;
  virtual void authenticate(const std::string &username, const std::string &password,
                            const std::string &mechanism) = 0;
  virtual void sendMessage() = 0;
  // Another message on this connection once the last one was sent: the
  // transaction is reset (RSET) and the watch on the server's silence
  // starts over; the message goes with sendMessage() once the reset is
  // answered. `message` comes from prepared().
  virtual void resetFor(const MailMessage &message) = 0;
  // The server's last reply, as bytes.
  virtual std::vector<uint8_t> lastResponse() const = 0;
};

// What the mail module exports: a new session, owned by the caller.
using OpenSmtpSessionFunction = SmtpSession *(*)(const MailServer *server, const MailMessage *message);
inline constexpr const char *kOpenSmtpSessionSymbol = "parlovaOpenSmtpSession";
using RenderMessageFunction = void (*)(const MailMessage *message, std::vector<uint8_t> *bytes);
inline constexpr const char *kRenderMessageSymbol = "parlovaRenderMessage";
using LeaveThreadFunction = void (*)();
inline constexpr const char *kLeaveThreadSymbol = "parlovaLeaveThread";

} // namespace parlova
