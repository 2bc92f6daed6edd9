#include "driver/RunPlan.h"

#include <variant>

#include "context/MailPassword.h"
#include "context/MailSettings.h"
#include "context/Settings.h"
#include "generator/ChatLibrary.h"
#include "generator/ICLPLogGenerator.h"
#include "history/ChatHistory.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

// What reportThis starts with when a refusal wrote it, so that only such
// a report is taken out again.
constexpr std::string_view kReportPrefix = "Mail settings: ";

std::string stageLine(const std::string &name, bool on, const std::string &key, const std::string &detail = {}) {
  std::string line = name;
  line.resize(9, ' ');
  return line + (on ? "on" : "off") + " (" + key + ")" + (detail.empty() ? "" : ": " + detail);
}

const char *securityName(MailSecurity security) {
  switch (security) {
  case MailSecurity::None:
    return "no TLS";
  case MailSecurity::StartTls:
    return "STARTTLS";
  case MailSecurity::Tls:
    return "TLS";
  }
  return "";
}

// Where the mail goes, and what the settings lack for it.
std::string mailDetail(const MailSettings &mail, RunPlan::Password password, std::vector<std::string> &problems) {
  if (!mail.delivery) {
    problems.push_back("emailDelivery must be " + deliveryNamesText(" or "));
    return "?";
  }
  Preferences &settings = appSettings();
  for (const NeededSetting &needed : settingsNeededBy(*mail.delivery))
    if (settings.stringValue(needed.key).value_or("").empty())
      problems.push_back(std::string(needed.key) + " is not set (" + std::string(needed.what) + ")");
  const std::string addresses = "from " + mail.from.value_or("?") + " to " + mail.to.value_or("?");
  const auto server = [&](unsigned plainPort, unsigned tlsPort) -> std::string {
    if (!mail.server || mail.server->empty())
      return "?";
    const auto chosen = mail.serverFor(*mail.server, plainPort, tlsPort);
    if (const auto *why = std::get_if<std::string>(&chosen)) {
      problems.push_back(*why);
      return *mail.server;
    }
    const auto &setting = std::get<MailServerSetting>(chosen);
    return setting.host + ":" + std::to_string(setting.port) + " (" + securityName(setting.security) + ")";
  };
  const auto login = [&](bool needed) {
    if (!needed || password == RunPlan::Password::NotTried)
      return;
    if (const MailPassword given = mailPassword(settings); !given.failure.empty())
      problems.push_back(given.failure);
  };

  switch (*mail.delivery) {
  case DeliveryKind::Smtp: {
    const std::string through = server(25, 465);
    login(mail.needsUsername);
    return "smtp through " + through + ", " + addresses;
  }
  case DeliveryKind::Imap: {
    const std::string through = server(143, 993);
    if (auto why = mail.imapFolderProblem())
      problems.push_back(std::move(*why));
    login(true);
    return "imap into the folder " + mail.folder + " on " + through + ", " + addresses;
  }
  case DeliveryKind::Maildir:
    return "maildir into " + (mail.maildir / ("." + mail.folder)).string() + ", " + addresses;
  }
  return "?";
}

} // namespace

RunPlan RunPlan::ofSettings(Password password) {
  Preferences &settings = appSettings();
  RunPlan plan;
  const MailSettings mail = MailSettings::read(settings);
  plan.mailOn_ = mail.sendEmails;
  plan.stages_.push_back(stageLine("mail", mail.sendEmails, "sendEmails",
                                   mail.sendEmails ? mailDetail(mail, password, plan.problems_)
                                                   : "nothing is mailed; parlova --mail-processed mails processed "
                                                     "chats later"));
  plan.stages_.push_back(stageLine("links", settings.boolValue("handleURLs"), "handleURLs"));
  plan.stages_.push_back(stageLine("pictures", settings.boolValue("handleImages"), "handleImages"));
  plan.stages_.push_back(stageLine("history", ChatHistory::wanted(), "keepHistory"));
  plan.stages_.push_back(stageLine("library", ChatLibrary::wanted(), "keepChatPages"));

  const fs::path folder = ICLPLogGenerator::parlovaFolder();
  std::error_code error;
  if (!fs::exists(folder / "statstemplate.html", error))
    plan.warnings_.push_back("no page templates in " + folder.string() +
                             ", so no pages are made; parlova --setup puts them there");
  if (const int32_t status = settings.intValue("errorStatus"); status != 0)
    plan.problems_.push_back("an email error stands (errorStatus " + std::to_string(status) +
                             "); nothing is archived until it is deleted");
  return plan;
}

std::string RunPlan::text() const {
  std::string text;
  for (const std::string &line : stages_)
    text += line + "\n";
  for (const std::string &line : problems_)
    text += "problem  " + line + "\n";
  for (const std::string &line : warnings_)
    text += "note     " + line + "\n";
  return text;
}

bool RunPlan::allowsRun() const {
  Preferences &settings = appSettings();
  const auto report = settings.stringValue("reportThis");
  const bool ours = report && report->starts_with(kReportPrefix);
  std::string mailProblems;
  // A standing error has its own way of stopping a run.
  for (const std::string &problem : problems_)
    if (!problem.starts_with("an email error stands"))
      mailProblems += (mailProblems.empty() ? "" : "; ") + problem;
  if (mailProblems.empty()) {
    if (ours) {
      settings.setAppValue("reportThis", std::nullopt);
      settings.appSynchronize();
    }
    return true;
  }
  logFormat("Mail is on, but the settings are not complete: %@. Nothing is done until they are put right "
            "(parlova --dry-run shows them).",
            mailProblems);
  if (report != std::string(kReportPrefix) + mailProblems) {
    settings.setAppValue("reportThis", PreferenceValue::string(std::string(kReportPrefix) + mailProblems));
    settings.appSynchronize();
  }
  return false;
}

} // namespace parlova
