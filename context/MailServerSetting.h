// Where a mail server is and how the connection to it is secured, as the
// settings give it. Header only: the mail module, which knows nothing else
// of the settings, is handed it as it is.
#pragma once

#include <string>

namespace parlova {

// How the mail goes over the network: the setting emailSecurity.
enum class MailSecurity { None, StartTls, Tls };

struct MailServerSetting {
  std::string host;
  unsigned port = 25;
  MailSecurity security = MailSecurity::None;
  std::string caFile; // empty: the system's certificate store
  bool verify = true; // the certificate and the host name, when secured
};

} // namespace parlova
