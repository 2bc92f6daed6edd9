#include "driver/ExtractChatLog.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/TranscriptJournal.h"
#include "generator/ICLPLogGenerator.h"
#include "mail/SmtpSession.h"
#include "platform/FileManager.h"
#include "platform/Home.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

// Each new name is made from the previous one, so the suffixes pile up:
// "x.ichat", "x #2.ichat", "x #2 #3.ichat", ... That naming is settled and
// stays.
fs::path archiveTarget(const fs::path &archiveFolder, const fs::path &transcript) {
  fs::path target = archiveFolder / transcript.filename();
  for (int counter = 2; fileExistsAtPath(target); ++counter) {
    const std::string name = target.filename().string();
    target = target.parent_path() /
             (deletingPathExtension(name) + " #" + std::to_string(counter) + "." + pathExtension(name));
  }
  return target;
}

fs::path archiveFolder() { return homeDirectory() / "Documents" / "iChats (Parlovaed)"; }

// The end of every processed transcript: the move, and a clean slate for
// the email failure count.
void moveToArchiveFolder(const fs::path &transcript, const fs::path &target) {
  std::error_code error;
  fs::create_directories(target.parent_path(), error);
  logFormat("preparing to move %@ to %@", transcript.string(), target.string());
  if (!moveItem(transcript, target))
    logLine("FAILED");

  Preferences &settings = appSettings();
  if (settings.intValue("errorStatus") == 0) {
    settings.setAppValue("emailFails", PreferenceValue::integer(0));
    settings.appSynchronize();
  }
}

// The values of emailSecurity, in any case; absent is "none".
std::optional<MailSecurity> mailSecurityNamed(std::string name) {
  for (char &c : name)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (name == "none" || name.empty())
    return MailSecurity::None;
  if (name == "starttls")
    return MailSecurity::StartTls;
  if (name == "tls")
    return MailSecurity::Tls;
  return std::nullopt;
}

// Composes the transcript email and carries it through the SMTP session.
// True when it could not be handed to the server.
bool sendTranscriptEmail(ICLPChatLog &log, const std::optional<std::string> &to, const std::optional<std::string> &from,
                         const std::optional<std::string> &server, int port) {
  // Without a server or both addresses there is no one to hand the message
  // to: that is an unreachable server.
  if (!server || server->empty() || !to || to->empty() || !from || from->empty()) {
    logLine("Unable to connect to mail server.");
    ICLPChatLog::reportErrorAndLog(2, "SMTP unreachable");
    return true;
  }
  Preferences &settings = appSettings();
  const std::string security = settings.stringValue("emailSecurity").value_or("none");
  const auto mode = mailSecurityNamed(security);
  if (!mode) {
    // A misspelt setting must not send a password in the clear.
    const std::string reason = "emailSecurity \"" + security + "\" is none of none, starttls and tls";
    logFormat("Could not secure the connection to the mail server: %@", reason);
    ICLPChatLog::reportErrorAndLog(2, reason);
    return false;
  }
  MailServer mailServer;
  mailServer.host = *server;
  mailServer.security = *mode;
  // Implicit TLS has a port of its own; the plain and STARTTLS default stays 25.
  mailServer.port = static_cast<unsigned>(*mode == MailSecurity::Tls && settings.intValue("emailPort") == 0 ? 465 : port);
  mailServer.caFile = settings.stringValue("emailCAFile").value_or("");
  mailServer.verify = !settings.boolValue("emailAllowUnverifiedCertificate");

  MailMessage message;
  message.subject = log.subjectForEmail();
  message.from = *from;
  message.to = *to;
  message.html = log.HTMLChatLog();
  message.plainText = log.PlainChatLog();
  auto opened = SmtpSession::open(mailServer, message);
  if (const auto *why = std::get_if<std::string>(&opened)) {
    logFormat("Could not load the mail module: %@", *why);
    logLine("Unable to connect to mail server.");
    ICLPChatLog::reportErrorAndLog(2, "SMTP unreachable");
    return true;
  }
  return log.HandleEmailSending(*std::get<std::unique_ptr<SmtpSession>>(opened));
}

} // namespace

void ExtractChatLog(const std::string &path, ICLPChatLog *log) {
  Preferences &settings = appSettings();

  const auto emailAddress = settings.stringValue("emailAddress");
  const auto emailOutgoing = settings.stringValue("emailOutgoing");
  const bool handleURLs = settings.boolValue("handleURLs");
  const bool handleImages = settings.boolValue("handleImages");
  const bool sendEmails = settings.boolValue("sendEmails");

  logFormat("extracting %@", path);

  const auto emailServer = settings.stringValue("emailServer");
  int emailPort = settings.intValue("emailPort");
  if (emailPort == 0)
    emailPort = 25;

  if (log == nullptr) {
    logFormat("Error parsing %@. This file is likely not a chat log and has been skipped.", path);
    return;
  }

  if (!log->isLikelyEndOfChat()) {
    if (verbose)
      logLine("*****FINISH*****This log is probably an incomplete log that will be finished later- don't send and "
              "don't record it as the last log.");
    return;
  }

  logFormat("preparing email send %@", path);

  if (sendEmails && sendTranscriptEmail(*log, emailAddress, emailOutgoing, emailServer, emailPort)) {
    logLine("*****FINISH***** An error occurred while sending email. This log has been skipped.");
    return;
  }

  if (settings.intValue("errorStatus") != 0) {
    logLine("an error has occurred while emailing?");
    std::exit(0);
  }

  // Whatever ends this run from here on, the next one finds the archives
  // either without this transcript or complete with it.
  TranscriptJournal journal(ICLPLogGenerator::parlovaFolder());
  if (!journal.begin(path)) {
    logFormat("Could not write %@: %@", journal.journalFile().string(), std::strerror(errno));
    return;
  }

  if (handleURLs)
    ICLPLogGenerator::GenerateLinkFiles(log);
  if (handleImages)
    ICLPLogGenerator::GenerateImageFiles(log);
  ICLPLogGenerator::UpdateStatistics(log);

  const fs::path target = archiveTarget(archiveFolder(), path);
  if (!journal.markArchived(target)) {
    // Without the record a later run would undo finished archives; with no
    // journal at all it at worst processes the transcript again.
    logFormat("Could not write %@: %@", journal.journalFile().string(), std::strerror(errno));
    journal.clear();
  }
  moveToArchiveFolder(path, target);
  journal.clear();
  std::exit(0);
}

void FinishInterruptedArchiving() {
  TranscriptJournal journal(ICLPLogGenerator::parlovaFolder());
  const auto recovery = journal.recover();
  switch (recovery.kind) {
  case TranscriptJournal::Recovery::Kind::Nothing:
    return;
  case TranscriptJournal::Recovery::Kind::RolledBack:
    logFormat("A run ended while archiving %@; the archives are back as they were before it.",
              recovery.transcript.string());
    return;
  case TranscriptJournal::Recovery::Kind::MoveDue:
    logFormat("A run ended before moving %@; moving it now.", recovery.transcript.string());
    // The target chosen then may have been taken since.
    const fs::path target = fileExistsAtPath(recovery.target)
                                ? archiveTarget(recovery.target.parent_path(), recovery.transcript)
                                : recovery.target;
    moveToArchiveFolder(recovery.transcript, target);
    journal.clear();
    return;
  }
}

} // namespace parlova
