// Asking a mail server to start TLS, over the plain connection it was
// reached on: its greeting and its list of extensions read and judged, and
// nothing of the user's sent before the upgrade. Everything read here is
// the server's to choose, so every reply is bounded in size and in time.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace parlova {

// Greeting, EHLO and STARTTLS (SMTP), or greeting, CAPABILITY and a tagged
// STARTTLS (IMAP), on the connected socket `fd`. Empty when the server
// agreed to start TLS; otherwise why not ("server does not offer
// STARTTLS").
std::string negotiateSmtpStartTls(int fd, std::chrono::steady_clock::time_point deadline);
std::string negotiateImapStartTls(int fd, std::chrono::steady_clock::time_point deadline);

// The whole of `bytes`, or false once the connection takes no more.
bool sendAll(int fd, std::string_view bytes);
// What is left of an exchange's time, for poll(); 0 once it has run out.
int millisecondsLeft(std::chrono::steady_clock::time_point deadline);

} // namespace parlova
