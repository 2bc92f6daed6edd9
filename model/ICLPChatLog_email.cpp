// The transcript email: its subject and the SMTP exchange on the run loop.
#include <cstring>
#include <ctime>

#include "context/MailPassword.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "foundation/Unicode.h"
#include "model/ICLPChatLog.h"
#include "platform/Log.h"

namespace parlova {

std::string ICLPChatLog::subjectForEmail() {
  Preferences &settings = appSettings();
  const bool unique = settings.boolValue("forceUniqueSubjects");
  const int32_t subjectNumber = settings.intValue("subjectNumber");
  if (!unique)
    return "[IM] " + primaryOtherParty_;
  // The counter is kept for the settings pane; it does not appear in the
  // subject.
  settings.setAppValue("subjectNumber", PreferenceValue::integer(static_cast<int64_t>(subjectNumber) + 1));
  settings.appSynchronize();
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char date[128];
  const size_t length = std::strftime(date, sizeof date, "%c", &local);
  return "[IM] " + primaryOtherParty_ + " (" + std::string(date, length) + ")";
}

bool ICLPChatLog::HandleEmailSending(SmtpSession &session) {
  smtp = &session;
  mailTransmissionDone = false;
  if (verbose)
    logLine("preparing to email with pantomime");
  session.setDelegate(this);
  if (session.connect() != 0) {
    if (const auto &reason = session.securityFailure()) {
      // Reached but not secured: nothing of the user's was sent. Reported
      // like a refused message, so the transcript is not held back for ever.
      logFormat("Could not secure the connection to the mail server: %@", *reason);
      reportErrorAndLog(2, *reason);
      return false;
    }
    logLine("Unable to connect to mail server.");
    reportErrorAndLog(2, "SMTP unreachable");
    return true;
  }
  session.scheduleTimer(1.0, [this, &session] { emailReady(session); });

  bool failed = false;
  while (!mailTransmissionDone) {
    if (!shouldQuit)
      return true;
    if (!session.runRunLoopOnce()) {
      logLine("Error waiting for email transmission runloop.");
      reportErrorAndLog(4, "runloop error");
      mailTransmissionDone = true;
      failed = true;
    }
  }
  return failed;
}

void ICLPChatLog::emailReady(SmtpSession &session) {
  Preferences &settings = appSettings();
  const bool needsUsername = (settings.intValue("emailNeedsUsername") & 0xFF) != 0;
  const std::string username = settings.stringValue("emailUsername").value_or("");
  if (!needsUsername) {
    session.sendMessage();
    return;
  }
  const MailPassword password = mailPassword(settings);
  if (!password.failure.empty()) {
    logLine(password.failure);
    reportErrorAndLog(3, password.failure);
    mailTransmissionDone = true;
    return;
  }
  session.authenticate(username, password.password, "LOGIN");
}

void ICLPChatLog::authenticationCompleted() {
  if (smtp)
    smtp->sendMessage();
}

void ICLPChatLog::authenticationFailed() {
  logLine("The SMTP server rejected the username/password.");
  reportErrorAndLog(3, "login rejected");
  mailTransmissionDone = true;
}

void ICLPChatLog::messageSent() {
  messageWasSent = true;
  mailTransmissionDone = true;
}

void ICLPChatLog::messageNotSent() {
  // The reply's bytes are taken as 16-bit characters in host order, a
  // trailing odd byte dropped: the settled reading, kept as it is.
  const std::vector<uint8_t> reply = smtp ? smtp->lastResponse() : std::vector<uint8_t>{};
  std::u16string units(reply.size() / 2, u'\0');
  for (size_t i = 0; i < units.size(); ++i) {
    char16_t unit;
    std::memcpy(&unit, reply.data() + 2 * i, 2);
    units[i] = unit;
  }
  const std::string text = utf16ToUtf8(units);
  logLine("An error occurred while sending email:");
  logLine(text);
  reportErrorAndLog(2, text);
  mailTransmissionDone = true;
}

void ICLPChatLog::connectionTimedOut() {
  logLine("The attempt to send email timed out.");
  reportErrorAndLog(2, "server not responding");
  mailTransmissionDone = true;
}

} // namespace parlova
