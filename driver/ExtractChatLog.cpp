#include "driver/ExtractChatLog.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <unistd.h>

#include "context/MailPassword.h"
#include "context/ProcessFlags.h"
#include "context/Settings.h"
#include "driver/TranscriptJournal.h"
#include "generator/ArchiveBatch.h"
#include "generator/ChatHistory.h"
#include "generator/ChatLibrary.h"
#include "generator/ICLPLogGenerator.h"
#include "mail/ImapSession.h"
#include "mail/MaildirDelivery.h"
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


} // namespace

fs::path ArchiveFolder() { return homeDirectory() / "Documents" / "iChats (Parlovaed)"; }

fs::path ArchiveTargetFor(const fs::path &transcript) { return archiveTarget(ArchiveFolder(), transcript); }

// The end of every processed transcript: the move, and a clean slate for
// the email failure count.
bool MoveToArchiveFolder(const fs::path &transcript, const fs::path &target, FailureCountReset reset,
                         Durability durability) {
  std::error_code error;
  fs::create_directories(target.parent_path(), error);
  logFormat("preparing to move %@ to %@", transcript.string(), target.string());
  const bool moved = moveItem(transcript, target, durability);
  if (!moved) {
    const std::string reason = std::strerror(errno);
    logLine("FAILED");
    logFormat("Could not move %@ to %@: %@; later runs try the move again, and only the move.", transcript.string(),
              target.string(), reason);
  }

  Preferences &settings = appSettings();
  if (settings.intValue("errorStatus") == 0) {
    if (reset == FailureCountReset::WhenNotZero) {
      // Only an integer 0: anything else is written as the integer it must be.
      const auto count = settings.copyAppValue("emailFails");
      if (count && plistInteger(count->node()) == 0)
        return moved;
    }
    settings.setAppValue("emailFails", PreferenceValue::integer(0));
    settings.appSynchronize();
  }
  return moved;
}

std::optional<std::string> WhyArchivingCannotFinish(const fs::path &transcript) {
  const fs::path folder = ArchiveFolder();
  std::error_code error;
  fs::create_directories(folder, error);
  const auto status = fs::symlink_status(folder, error);
  if (fs::is_symlink(status) && !fs::exists(fs::status(folder, error)))
    return "it is a link to " + fs::read_symlink(folder, error).string() + ", which is not there";
  if (!fs::is_directory(fs::status(folder, error)))
    return fileExistsAtPath(folder) ? "it is not a folder" : "it cannot be made: " + error.message();
  if (access(folder.c_str(), W_OK | X_OK) != 0)
    return std::strerror(errno);
  const std::string name = ArchiveTargetFor(transcript).filename().string();
  const long longest = pathconf(folder.c_str(), _PC_NAME_MAX);
  if (longest > 0 && name.size() > static_cast<size_t>(longest))
    return "the name it would get there (" + std::to_string(name.size()) + " bytes) is longer than the file system "
           "allows (" + std::to_string(longest) + ")";
  return std::nullopt;
}

void ReportArchivingCannotFinish(const std::string &why) {
  const std::string text = "cannot move transcripts into " + ArchiveFolder().string() + ": " + why;
  logFormat("Nothing was sent or archived: %@. The next run tries again.", text);
  Preferences &settings = appSettings();
  settings.setAppValue("reportThis", PreferenceValue::string(text));
  settings.appSynchronize();
}

namespace {

// A setting that names one of a few choices: its string in lower case,
// `absent` when it is not set, and nothing for a value of another type (a
// boolean from "-bool YES", a number), which no choice may be guessed from.
std::optional<std::string> choiceSetting(Preferences &settings, std::string_view key, std::string_view absent) {
  const auto stored = settings.copyAppValue(key);
  if (!stored)
    return std::string(absent);
  auto name = plistString(stored->node());
  if (name)
    for (char &c : *name)
      c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return name;
}

// emailSecurity: anything but the three names is nothing, never a plain
// connection.
std::optional<MailSecurity> mailSecuritySetting(Preferences &settings) {
  const auto name = choiceSetting(settings, "emailSecurity", "none");
  if (name == "none")
    return MailSecurity::None;
  if (name == "starttls")
    return MailSecurity::StartTls;
  if (name == "tls")
    return MailSecurity::Tls;
  return std::nullopt;
}

// A setting that leaves no safe way to send: the transcript waits as for a
// server out of reach until it is put right. Always true, for the caller
// to return.
bool waitForSetting(const std::string &reason) {
  logFormat("Unable to connect to mail server: %@.", reason);
  ICLPChatLog::reportErrorAndLog(2, reason);
  return true;
}

// The transcript email as every delivery makes it.
MailMessage transcriptMessage(ICLPChatLog &log, const std::string &to, const std::string &from) {
  MailMessage message;
  message.subject = log.subjectForEmail();
  message.from = from;
  message.to = to;
  message.html = log.HTMLChatLog();
  message.plainText = log.PlainChatLog();
  return message;
}

// When the chat began: its first message's time, in seconds since 1970.
std::optional<double> chatStart(const ICLPChatLog &log) {
  for (const auto &message : log.messages())
    if (const auto time = message->TimeStamp())
      return time->timeIntervalSince1970();
  return std::nullopt;
}

// The transcript email for a mailbox: the message the SMTP path sends,
// dated by the chat's first message and named after the transcript's
// contents, so that storing it again (a run that died before the move)
// stores nothing. Nothing when it cannot be made; that is logged.
struct MailboxMessage {
  std::string name; // unique to the transcript's contents, ASCII
  std::vector<uint8_t> bytes;
  double chatTime = 0;
};

std::optional<MailboxMessage> mailboxMessage(ICLPChatLog &log, const std::string &path,
                                             const std::optional<std::string> &to,
                                             const std::optional<std::string> &from) {
  const auto identity = TranscriptJournal::identify(path);
  if (!identity) {
    logFormat("Could not store the mail: %@ cannot be read.", path);
    return std::nullopt;
  }
  MailboxMessage stored;
  stored.name = "parlova." + identity->key();
  const std::string sender = from.value_or("");
  const size_t at = sender.rfind('@');
  const std::string domain = at == std::string::npos || at + 1 == sender.size() ? "localhost" : sender.substr(at + 1);
  const std::optional<double> chatTime = chatStart(log);
  stored.chatTime = chatTime.value_or(Date::now().timeIntervalSince1970());

  MailMessage message = transcriptMessage(log, to.value_or(""), sender);
  message.messageId = stored.name + "@" + domain;
  message.date = chatTime;
  auto bytes = SmtpSession::messageBytes(message);
  if (const auto *why = std::get_if<std::string>(&bytes)) {
    logFormat("Could not load the mail module: %@", *why);
    return std::nullopt;
  }
  stored.bytes = std::move(std::get<std::vector<uint8_t>>(bytes));
  return stored;
}

// A delivery that failed for good, handled like a refused message: the
// reason in the settings, the transcript archived all the same.
void reportStoreFailure(const std::string &reason, int status = 2) {
  logFormat("Could not store the mail: %@", reason);
  ICLPChatLog::reportErrorAndLog(status, reason);
}

// The transcript email stored straight into a local Maildir. Like the SMTP
// path: true when the transcript must wait.
bool storeTranscriptInMaildir(ICLPChatLog &log, const std::string &path, const std::optional<std::string> &to,
                              const std::optional<std::string> &from) {
  const auto message = mailboxMessage(log, path, to, from);
  if (!message)
    return true;
  Preferences &settings = appSettings();
  std::string maildir = settings.stringValue("emailMaildir").value_or("~/Maildir");
  if (maildir == "~" || maildir.starts_with("~/"))
    maildir = (homeDirectory() / maildir.substr(std::min<size_t>(2, maildir.size()))).string();
  const MaildirDelivery delivery(maildir, settings.stringValue("emailFolder").value_or("Chats"));
  const auto result = delivery.deliver(message->name, message->bytes, message->chatTime);
  switch (result.outcome) {
  case MaildirDelivery::Outcome::Stored:
    log.messageWasSent = true;
    break;
  case MaildirDelivery::Outcome::AlreadyThere:
    logFormat("The mail of %@ is in %@ already; it is not stored again.", path, delivery.folder().string());
    log.messageWasSent = true;
    break;
  case MaildirDelivery::Outcome::Failed:
    reportStoreFailure("Maildir not writable: " + result.reason);
    break;
  }
  return false;
}

// Where and how an IMAP or SMTP server is reached, from the settings; or
// why the settings allow no safe connection.
std::variant<MailServer, std::string> mailServerSetting(Preferences &settings, const std::string &host,
                                                        unsigned plainPort, unsigned tlsPort) {
  // A port beyond 16 bits would wrap to another port: refused, never used.
  if (const auto stored = settings.copyAppValue("emailPort")) {
    const auto number = plistInteger(stored->node());
    const int64_t value = number ? *number : stored->intValue();
    if (value < 0 || value > 65535)
      return "emailPort " + std::to_string(value) + " is no port number (0 to 65535)";
  }
  const auto mode = mailSecuritySetting(settings);
  if (!mode) // a guess could send the password in the clear
    return std::string("emailSecurity must be none, starttls or tls");
  MailServer server;
  server.host = host;
  server.security = *mode;
  const int port = settings.intValue("emailPort");
  server.port = port != 0 ? static_cast<unsigned>(port) : *mode == MailSecurity::Tls ? tlsPort : plainPort;
  server.caFile = settings.stringValue("emailCAFile").value_or("");
  server.verify = !settings.boolValue("emailAllowUnverifiedCertificate");
  return server;
}

// The transcript email appended to a folder of an IMAP mailbox. Like the
// SMTP path: true when the transcript must wait.
bool storeTranscriptByImap(ICLPChatLog &log, const std::string &path, const std::optional<std::string> &to,
                           const std::optional<std::string> &from) {
  Preferences &settings = appSettings();
  const auto host = settings.stringValue("emailServer");
  if (!host || host->empty()) {
    logLine("Unable to connect to mail server.");
    ICLPChatLog::reportErrorAndLog(2, "IMAP unreachable");
    return true;
  }
  const auto server = mailServerSetting(settings, *host, 143, 993);
  if (const auto *why = std::get_if<std::string>(&server))
    return waitForSetting(*why);
  ImapRequest request;
  request.username = settings.stringValue("emailUsername").value_or("");
  if (request.username.empty())
    return waitForSetting("IMAP needs emailUsername");
  request.folder = settings.stringValue("emailFolder").value_or("Chats");
  // The framework puts folder names between quotes as they are.
  if (request.folder.empty() || request.folder.find_first_of("\"\\\r\n") != std::string::npos)
    return waitForSetting("emailFolder for IMAP must be a folder name without quotes or backslashes");
  const MailPassword password = mailPassword(settings);
  if (!password.failure.empty()) {
    reportStoreFailure(password.failure, 3);
    return false;
  }
  request.password = password.password;
  const auto message = mailboxMessage(log, path, to, from);
  if (!message)
    return true;
  request.messageIdKey = message->name;
  request.message = message->bytes;
  request.internalDate = message->chatTime;

  const auto stored = ImapSession::store(std::get<MailServer>(server), request, [] { return shouldQuit; });
  if (const auto *why = std::get_if<std::string>(&stored)) {
    logFormat("Could not load the mail module: %@", *why);
    logLine("Unable to connect to mail server.");
    ICLPChatLog::reportErrorAndLog(2, "IMAP unreachable");
    return true;
  }
  const ImapResult &result = std::get<ImapResult>(stored);
  using Outcome = ImapResult::Outcome;
  switch (result.outcome) {
  case Outcome::Stored:
    log.messageWasSent = true;
    return false;
  case Outcome::AlreadyThere:
    logFormat("The mail of %@ is in the IMAP folder %@ already; it is not stored again.", path, request.folder);
    log.messageWasSent = true;
    return false;
  case Outcome::Unreachable:
    logLine("Unable to connect to mail server.");
    ICLPChatLog::reportErrorAndLog(2, "IMAP unreachable");
    return true;
  case Outcome::Stopped:
    return true;
  case Outcome::NotSecured:
    logFormat("Could not secure the connection to the mail server: %@", result.detail);
    ICLPChatLog::reportErrorAndLog(2, result.detail);
    return false;
  case Outcome::LoginRefused:
    reportStoreFailure("IMAP login refused: " + result.detail, 3);
    return false;
  case Outcome::FolderNotCreated:
    reportStoreFailure("IMAP folder could not be created: " + result.detail);
    return false;
  case Outcome::NotStored:
    reportStoreFailure("IMAP server refused the message: " + result.detail);
    return false;
  case Outcome::TimedOut:
    logLine("The attempt to send email timed out.");
    ICLPChatLog::reportErrorAndLog(2, "server not responding");
    return false;
  }
  return false;
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
  // Implicit TLS has a port of its own; the plain and STARTTLS default stays 25.
  const auto chosen = mailServerSetting(settings, *server, static_cast<unsigned>(port), 465);
  if (const auto *why = std::get_if<std::string>(&chosen))
    return waitForSetting(*why);
  const MailServer &mailServer = std::get<MailServer>(chosen);

  MailMessage message = transcriptMessage(log, *to, *from);
  if (settings.boolValue("emailDateFromChat"))
    message.date = chatStart(log);
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

ChatLogPreparation PrepareChatLog(const std::string &path, ICLPChatLog *log,
                                  const std::function<bool()> &beforeMail) {
  using Outcome = ChatLogPreparation::Outcome;
  Preferences &settings = appSettings();
  ChatLogPreparation preparation;

  const auto emailAddress = settings.stringValue("emailAddress");
  const auto emailOutgoing = settings.stringValue("emailOutgoing");
  preparation.handleURLs = settings.boolValue("handleURLs");
  preparation.handleImages = settings.boolValue("handleImages");
  const bool sendEmails = settings.boolValue("sendEmails");

  logFormat("extracting %@", path);

  const auto emailServer = settings.stringValue("emailServer");
  int emailPort = settings.intValue("emailPort");
  if (emailPort == 0)
    emailPort = 25;

  if (log == nullptr) {
    logFormat("Error parsing %@. This file is likely not a chat log and has been skipped.", path);
    return preparation;
  }

  if (!log->isLikelyEndOfChat()) {
    if (verbose)
      logLine("*****FINISH*****This log is probably an incomplete log that will be finished later- don't send and "
              "don't record it as the last log.");
    preparation.outcome = Outcome::LeftOpen;
    return preparation;
  }

  // Nothing is sent for a transcript whose archiving could not be finished.
  if (beforeMail && !beforeMail()) {
    preparation.outcome = Outcome::CannotFinish;
    return preparation;
  }

  logFormat("preparing email send %@", path);

  // Where the mail goes; no guess at another place.
  const auto delivery = choiceSetting(settings, "emailDelivery", "smtp");
  const bool knownDelivery = delivery == "smtp" || delivery == "maildir" || delivery == "imap";
  if (sendEmails && !knownDelivery) {
    waitForSetting("emailDelivery must be smtp, imap or maildir");
    logLine("*****FINISH***** An error occurred while sending email. This log has been skipped.");
    preparation.outcome = Outcome::MailFailed;
    return preparation;
  }
  const auto deliver = [&] {
    if (delivery == "maildir")
      return storeTranscriptInMaildir(*log, path, emailAddress, emailOutgoing);
    if (delivery == "imap")
      return storeTranscriptByImap(*log, path, emailAddress, emailOutgoing);
    return sendTranscriptEmail(*log, emailAddress, emailOutgoing, emailServer, emailPort);
  };
  const bool mailFailed = sendEmails && deliver();
  if (mailFailed) {
    logLine("*****FINISH***** An error occurred while sending email. This log has been skipped.");
    preparation.outcome = Outcome::MailFailed;
    return preparation;
  }
  preparation.mailed = sendEmails && log->messageWasSent;

  if (settings.intValue("errorStatus") != 0) {
    logLine("an error has occurred while emailing?");
    preparation.outcome = Outcome::ErrorStands;
    return preparation;
  }
  preparation.outcome = Outcome::Ready;
  return preparation;
}

void ExtractChatLog(const std::string &path, ICLPChatLog *log) {
  // Kept from before the mail, so that a run that cannot write it sends
  // nothing; whatever ends this run from then on, the next one finds the
  // archives either without this transcript or complete with it.
  TranscriptJournal journal(ICLPLogGenerator::parlovaFolder());
  const auto beforeMail = [&] {
    if (const auto why = WhyArchivingCannotFinish(path)) {
      ReportArchivingCannotFinish(*why);
      return false;
    }
    if (!journal.begin(path)) {
      logFormat("Could not write %@: %@", journal.journalFile().string(), std::strerror(errno));
      return false;
    }
    return true;
  };
  const ChatLogPreparation preparation = PrepareChatLog(path, log, beforeMail);
  switch (preparation.outcome) {
  case ChatLogPreparation::Outcome::NotLoaded:
  case ChatLogPreparation::Outcome::LeftOpen:
    return;
  case ChatLogPreparation::Outcome::MailFailed:
    journal.clear();
    return;
  case ChatLogPreparation::Outcome::ErrorStands:
    journal.clear();
    std::exit(0);
  case ChatLogPreparation::Outcome::CannotFinish:
    std::exit(0);
  case ChatLogPreparation::Outcome::Ready:
    break;
  }

  if (preparation.handleURLs)
    ICLPLogGenerator::GenerateLinkFiles(log);
  if (preparation.handleImages)
    ICLPLogGenerator::GenerateImageFiles(log);
  // Before the totals, whose page is drawn from the history too.
  const fs::path target = ArchiveTargetFor(path);
  if (ChatHistory::wanted())
    if (const auto identity = TranscriptJournal::identify(path)) {
      ChatRecord record = ChatRecord::of(*log, ICLPLogGenerator::CountChat(*log, ICLPLogGenerator::ReadWordLists()),
                                         identity->key(), target);
      const bool library = ChatLibrary::wanted();
      if (library) {
        record.page = ChatLibrary::pagePath(record);
        ChatLibrary::writeChatPage(*log, record);
      }
      ChatHistory::store({record});
      if (library)
        ChatLibrary::rebuildIndexPages();
    }
  ICLPLogGenerator::UpdateStatistics(log);

  if (!journal.markArchived(target)) {
    // Without the record a later run would undo finished archives; with no
    // journal at all it at worst processes the transcript again.
    logFormat("Could not write %@: %@", journal.journalFile().string(), std::strerror(errno));
    journal.clear();
  }
  if (MoveToArchiveFolder(path, target) || !journal.markMoveFailed(target))
    journal.clear();
  std::exit(0);
}

bool FinishInterruptedArchiving() {
  TranscriptJournal journal(ICLPLogGenerator::parlovaFolder());
  auto recovery = journal.recover();
  switch (recovery.kind) {
  case TranscriptJournal::Recovery::Kind::Nothing:
    return true;
  case TranscriptJournal::Recovery::Kind::BatchDue: {
    ArchiveBatch archives;
    for (const auto &move : recovery.moved) {
      // What was archived is the file as it is now, where it was moved.
      const auto contents = readFileContents(move.target);
      const auto log = contents ? ICLPChatLog::initWithFileContents(move.target, *contents) : std::nullopt;
      if (!log)
        continue;
      archives.add(*log, move.links, move.images,
                   ChatHistory::wanted() ? std::optional(TranscriptJournal::identityOf(*contents).key()) : std::nullopt,
                   move.target);
    }
    if (!archives.commit()) {
      logLine("A catch-up ended half-way through a batch, and its archives cannot be written yet; the next run "
              "tries again.");
      return false;
    }
    journal.clear();
    logFormat("A catch-up ended half-way through a batch; the archives now hold the %@ transcripts it had moved.",
              std::to_string(recovery.moved.size()));
    return true;
  }
  case TranscriptJournal::Recovery::Kind::RolledBack:
    logFormat("A run ended while archiving %@; the archives are back as they were before it.",
              recovery.transcript.string());
    return true;
  case TranscriptJournal::Recovery::Kind::MoveDue: {
    if (recovery.moveFailedBefore)
      logFormat("Moving %@ again: it is archived, only its move failed.", recovery.transcript.string());
    else
      logFormat("A run ended before moving %@; moving it now.", recovery.transcript.string());
    // The target chosen then may have been taken since.
    const fs::path target = fileExistsAtPath(recovery.target)
                                ? archiveTarget(recovery.target.parent_path(), recovery.transcript)
                                : recovery.target;
    // Until it is moved, no other transcript is begun: the journal keeps one.
    if (!MoveToArchiveFolder(recovery.transcript, target))
      return false;
    journal.clear();
    return true;
  }
  }
  return true;
}

} // namespace parlova
