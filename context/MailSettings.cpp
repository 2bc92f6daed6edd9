#include "context/MailSettings.h"

#include <algorithm>
#include <cctype>

#include "platform/Home.h"

namespace parlova {

std::string deliveryNamesText(std::string_view last) {
  std::string text;
  for (size_t i = 0; i < kDeliveryNames.size(); ++i) {
    if (i > 0)
      text += i + 1 == kDeliveryNames.size() ? last : ", ";
    text += kDeliveryNames[i].name;
  }
  return text;
}

std::span<const NeededSetting> settingsNeededBy(DeliveryKind kind) {
  static constexpr NeededSetting kSmtp[] = {{"emailServer", "the mail server's name"},
                                            {"emailAddress", "the address the mail goes to"},
                                            {"emailOutgoing", "the address the mail comes from"}};
  static constexpr NeededSetting kImap[] = {{"emailServer", "the mail server's name"},
                                            {"emailUsername", "the IMAP login"},
                                            {"emailAddress", "the address the mail goes to"},
                                            {"emailOutgoing", "the address the mail comes from"}};
  static constexpr NeededSetting kMaildir[] = {{"emailAddress", "the address the mail goes to"},
                                               {"emailOutgoing", "the address the mail comes from"}};
  switch (kind) {
  case DeliveryKind::Smtp:
    return kSmtp;
  case DeliveryKind::Imap:
    return kImap;
  case DeliveryKind::Maildir:
    return kMaildir;
  }
  return {};
}

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

namespace {

std::optional<DeliveryKind> deliverySetting(Preferences &settings) {
  const auto name = choiceSetting(settings, "emailDelivery", kDeliveryNames.front().name);
  const auto named = std::find_if(kDeliveryNames.begin(), kDeliveryNames.end(),
                                  [&](const DeliveryName &delivery) { return delivery.name == name; });
  if (named == kDeliveryNames.end())
    return std::nullopt;
  return named->kind;
}

// Anything but the three names is nothing, never a plain connection.
std::optional<MailSecurity> securitySetting(Preferences &settings) {
  const auto name = choiceSetting(settings, "emailSecurity", "none");
  if (name == "none")
    return MailSecurity::None;
  if (name == "starttls")
    return MailSecurity::StartTls;
  if (name == "tls")
    return MailSecurity::Tls;
  return std::nullopt;
}

} // namespace

MailSettings MailSettings::read(Preferences &settings) {
  MailSettings mail;
  mail.sendEmails = settings.boolValue("sendEmails");
  mail.delivery = deliverySetting(settings);
  mail.to = settings.stringValue("emailAddress");
  mail.from = settings.stringValue("emailOutgoing");
  mail.server = settings.stringValue("emailServer");
  mail.username = settings.stringValue("emailUsername").value_or("");
  mail.needsUsername = (settings.intValue("emailNeedsUsername") & 0xFF) != 0;
  mail.folder = settings.stringValue("emailFolder").value_or("Chats");
  std::string maildir = settings.stringValue("emailMaildir").value_or("~/Maildir");
  if (maildir == "~" || maildir.starts_with("~/"))
    maildir = (homeDirectory() / maildir.substr(std::min<size_t>(2, maildir.size()))).string();
  mail.maildir = maildir;
  mail.dateFromChat = settings.boolValue("emailDateFromChat");
  mail.messagesPerMinute = std::max(0, settings.intValue("emailMessagesPerMinute"));

  if (const auto stored = settings.copyAppValue("emailPort")) {
    const auto number = plistInteger(stored->node());
    mail.storedPort_ = number ? *number : stored->intValue();
  }
  mail.port_ = settings.intValue("emailPort");
  mail.security_ = securitySetting(settings);
  mail.caFile_ = settings.stringValue("emailCAFile").value_or("");
  mail.verify_ = !settings.boolValue("emailAllowUnverifiedCertificate");
  return mail;
}

std::optional<std::string> MailSettings::imapFolderProblem() const {
  if (folder.empty() || folder.find_first_of("\"\\\r\n") != std::string::npos)
    return "emailFolder for IMAP must be a folder name without quotes or backslashes";
  return std::nullopt;
}

std::variant<MailServerSetting, std::string> MailSettings::serverFor(const std::string &host, unsigned plainPort,
                                                                     unsigned tlsPort) const {
  if (storedPort_ && (*storedPort_ < 0 || *storedPort_ > 65535))
    return "emailPort " + std::to_string(*storedPort_) + " is no port number (0 to 65535)";
  if (!security_)
    return std::string("emailSecurity must be none, starttls or tls");
  MailServerSetting server;
  server.host = host;
  server.security = *security_;
  server.port = port_ != 0 ? static_cast<unsigned>(port_) : *security_ == MailSecurity::Tls ? tlsPort : plainPort;
  server.caFile = caFile_;
  server.verify = verify_;
  return server;
}

} // namespace parlova
