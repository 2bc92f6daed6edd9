// The mail settings as the run reads them, in one place: which delivery,
// and where and how a server is reached, or why no safe connection can be
// made; and the table of deliveries the manual must list.
#include <gtest/gtest.h>

#include "context/MailSettings.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;

TEST(MailSettings, ChoicesArePickedByNameAndNothingIsGuessed) {
  struct Case {
    std::optional<PreferenceValue> delivery, port, security;
    std::optional<DeliveryKind> kind;
    std::string server; // "host:port security verify", or why there is none
  };
  const auto text = PreferenceValue::string;
  const Case cases[] = {
      {std::nullopt, std::nullopt, std::nullopt, DeliveryKind::Smtp, "mail:25 0 1"},
      {text("IMAP"), std::nullopt, text("TLS"), DeliveryKind::Imap, "mail:465 2 1"},
      {text("maildir"), PreferenceValue::integer(2525), text("starttls"), DeliveryKind::Maildir, "mail:2525 1 1"},
      {text("mbox"), std::nullopt, std::nullopt, std::nullopt, "mail:25 0 1"},
      {PreferenceValue::boolean(true), std::nullopt, std::nullopt, std::nullopt, "mail:25 0 1"},
      {std::nullopt, PreferenceValue::integer(70000), std::nullopt, DeliveryKind::Smtp,
       "emailPort 70000 is no port number (0 to 65535)"},
      {std::nullopt, text("-1"), std::nullopt, DeliveryKind::Smtp, "emailPort -1 is no port number (0 to 65535)"},
      {std::nullopt, std::nullopt, text("ssl"), DeliveryKind::Smtp, "emailSecurity must be none, starttls or tls"},
      {std::nullopt, std::nullopt, PreferenceValue::boolean(true), DeliveryKind::Smtp,
       "emailSecurity must be none, starttls or tls"},
  };
  ScratchHome home;
  for (const Case &c : cases) {
    Preferences settings("com.example.mail", home.path() / "mail.plist");
    settings.setAppValue("emailDelivery", c.delivery);
    settings.setAppValue("emailPort", c.port);
    settings.setAppValue("emailSecurity", c.security);
    const MailSettings mail = MailSettings::read(settings);
    EXPECT_EQ(mail.delivery, c.kind);
    const auto server = mail.serverFor("mail", 25, 465);
    if (const auto *why = std::get_if<std::string>(&server)) {
      EXPECT_EQ(*why, c.server);
    } else {
      const auto &found = std::get<MailServerSetting>(server);
      EXPECT_EQ(found.host + ":" + std::to_string(found.port) + " " +
                    std::to_string(static_cast<int>(found.security)) + " " + std::to_string(found.verify),
                c.server);
    }
  }
}

TEST(MailSettings, TheManualNamesEveryDeliveryOfTheTable) {
  const std::string manual = readText(fs::path(PARLOVA_SOURCE_DIR) / "man" / "parlova-defaults.1");
  for (const DeliveryName &delivery : kDeliveryNames)
    EXPECT_NE(manual.find("\\fB" + std::string(delivery.name) + "\\fR"), std::string::npos) << delivery.name;
  EXPECT_NE(manual.find("emailDelivery must be " + deliveryNamesText(" or ")), std::string::npos);
}

} // namespace
} // namespace parlova::testing
