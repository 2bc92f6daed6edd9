// The transcript email's way out: one call whatever carries it (an SMTP
// server, a folder of an IMAP mailbox, a local Maildir), and one answer the
// pipeline acts on.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "context/MailSettings.h"
#include "mail/MailContent.h"

namespace parlova {

struct DeliveryResult {
  enum class Kind {
    Sent,         // the server or the folder took it
    AlreadyThere, // a mailbox holds it from an earlier run
    Wait,         // not handed over: the transcript stays for a later run
    Refused,      // handed over and refused for good: archived all the same
  };
  Kind kind = Kind::Wait;
  // For Wait and Refused: the error the settings pane is to show (its code
  // 2, 3 or 4 and text), or code 0 when there is none to show.
  int code = 0;
  std::string reason;

  static DeliveryResult sent() { return {Kind::Sent, 0, {}}; }
  static DeliveryResult alreadyThere() { return {Kind::AlreadyThere, 0, {}}; }
  static DeliveryResult wait(int code = 0, std::string reason = {}) { return {Kind::Wait, code, std::move(reason)}; }
  static DeliveryResult refused(int code, std::string reason) { return {Kind::Refused, code, std::move(reason)}; }

  bool delivered() const { return kind == Kind::Sent || kind == Kind::AlreadyThere; }
};

// Whether a message goes out again that went out before: a mailbox holds
// each message once in any case; a server that passes mail on sends it
// again unless told to look at what it was handed.
enum class Resending { Allowed, OncePerAddress };

// How a run uses the mail server: a single run opens a session for its one
// message, as it always has, and has a stored message on the disk before it
// goes on; a backlog keeps one session for all of its messages,
// reconnecting only when the server drops it, and leaves stored messages
// for DeferredSyncs::flushAll() before it records them as done.
enum class MailSessions { OnePerMessage, Kept };

class Delivery {
public:
  virtual ~Delivery() = default;
  // Carries the transcript's message, with the log lines of the way; the
  // caller records the result's error for the settings pane.
  virtual DeliveryResult deliver(MailContent &content) = 0;
};

// A setting that leaves no safe way to send: logged, and the transcript
// waits as for a server out of reach until it is put right.
DeliveryResult waitForSetting(const std::string &reason);

} // namespace parlova
