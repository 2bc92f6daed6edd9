#include "driver/ExtractChatLog.h"

#include <cstdlib>
#include <filesystem>

#include "driver/ProcessFlags.h"
#include "driver/Settings.h"
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
  MailMessage message;
  message.subject = log.subjectForEmail();
  message.from = *from;
  message.to = *to;
  message.html = log.HTMLChatLog();
  message.plainText = log.PlainChatLog();
  SmtpSession session(*server, static_cast<unsigned>(port), message);
  return log.HandleEmailSending(session);
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

  if (handleURLs)
    ICLPLogGenerator::GenerateLinkFiles(log);
  if (handleImages)
    ICLPLogGenerator::GenerateImageFiles(log);
  ICLPLogGenerator::UpdateStatistics(log);

  const fs::path archiveFolder = homeDirectory() / "Documents" / "iChats (Parlovaed)";
  std::error_code error;
  fs::create_directories(archiveFolder, error);
  const fs::path target = archiveTarget(archiveFolder, path);

  logFormat("preparing to move %@ to %@", path, target.string());
  if (!moveItem(path, target))
    logLine("FAILED");

  if (settings.intValue("errorStatus") == 0) {
    settings.setAppValue("emailFails", PreferenceValue::integer(0));
    settings.appSynchronize();
  }
  std::exit(0);
}

} // namespace parlova
