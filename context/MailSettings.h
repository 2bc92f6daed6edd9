// How the transcript email goes out, read from the settings in one place:
// whether it is sent at all, which delivery carries it, to whom, through
// which server or into which folder.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "context/MailServerSetting.h"
#include "platform/Preferences.h"

namespace parlova {

enum class DeliveryKind { Smtp, Imap, Maildir };

struct DeliveryName {
  std::string_view name; // as emailDelivery spells it, in lower case
  DeliveryKind kind;
};

// Every delivery emailDelivery may name, the default first. The run, the
// settings tool and the manual pages all take the names from here.
inline constexpr std::array kDeliveryNames{
    DeliveryName{"smtp", DeliveryKind::Smtp},
    DeliveryName{"imap", DeliveryKind::Imap},
    DeliveryName{"maildir", DeliveryKind::Maildir},
};

// The names in the table's order, joined by ", " and `last` before the
// last one: "smtp, imap or maildir".
std::string deliveryNamesText(std::string_view last);

// A text setting a delivery cannot do without, and what it is.
struct NeededSetting {
  std::string_view key;
  std::string_view what;
};
// Those of `kind`: what a run checks before it begins, and what --setup
// names. (An IMAP login's password comes from emailPasswordCommand or
// emailPassword, and is checked by asking for it.)
std::span<const NeededSetting> settingsNeededBy(DeliveryKind kind);

// A setting that names one of a few choices: its string in lower case,
// `absent` when it is not set, and nothing for a value of another type (a
// boolean from "-bool YES", a number), which no choice may be guessed from.
std::optional<std::string> choiceSetting(Preferences &settings, std::string_view key, std::string_view absent);

class MailSettings {
public:
  static MailSettings read(Preferences &settings);

  bool sendEmails = false;
  // Nothing when emailDelivery names none of the deliveries.
  std::optional<DeliveryKind> delivery;
  std::optional<std::string> to;     // emailAddress
  std::optional<std::string> from;   // emailOutgoing
  std::optional<std::string> server; // emailServer
  std::string username;              // emailUsername
  bool needsUsername = false;        // emailNeedsUsername, its low byte
  std::string folder;                // emailFolder, "Chats" when not set
  std::filesystem::path maildir;     // emailMaildir, "~" taken as the home folder
  bool dateFromChat = false;         // emailDateFromChat
  // emailMessagesPerMinute: how many messages a backlog hands one server a
  // minute, for providers that cap sending; 0 for as many as it takes.
  int messagesPerMinute = 0;

  // Why `folder` cannot name an IMAP folder (the framework puts it between
  // quotes as it is); nothing when it can.
  std::optional<std::string> imapFolderProblem() const;

  // Where and how `host` is reached: emailPort when set, else `tlsPort` for
  // implicit TLS and `plainPort` otherwise. Or why the settings allow no
  // safe connection: a port beyond 16 bits would wrap to another port, and
  // a guessed security could send the password in the clear.
  std::variant<MailServerSetting, std::string> serverFor(const std::string &host, unsigned plainPort,
                                                         unsigned tlsPort) const;

private:
  std::optional<int64_t> storedPort_; // emailPort as stored, to be checked
  int port_ = 0;
  std::optional<MailSecurity> security_;
  std::string caFile_;
  bool verify_ = true;
};

} // namespace parlova
