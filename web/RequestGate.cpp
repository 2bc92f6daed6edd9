#include "web/RequestGate.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <netinet/in.h>
#include <string>

namespace parlova {

namespace {

constexpr std::string_view kCookieName = "parlova-token";

bool isLocalhost(std::string_view name) {
  constexpr std::string_view kLocalhost = "localhost";
  return name.size() == kLocalhost.size() && std::equal(name.begin(), name.end(), kLocalhost.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == y;
         });
}

bool isAddress(int family, std::string_view text) {
  if (text.size() >= INET6_ADDRSTRLEN)
    return false;
  unsigned char address[sizeof(in6_addr)];
  return inet_pton(family, std::string(text).c_str(), address) == 1;
}

// The value of our cookie among "a=1; b=2".
std::optional<std::string_view> ourCookie(std::string_view header) {
  while (!header.empty()) {
    const size_t end = header.find(';');
    std::string_view pair = header.substr(0, end);
    header = end == std::string_view::npos ? std::string_view() : header.substr(end + 1);
    while (!pair.empty() && pair.front() == ' ')
      pair.remove_prefix(1);
    if (pair.size() > kCookieName.size() && pair.substr(0, kCookieName.size()) == kCookieName &&
        pair[kCookieName.size()] == '=')
      return pair.substr(kCookieName.size() + 1);
  }
  return std::nullopt;
}

} // namespace

RequestGate::Verdict RequestGate::judge(std::string_view host, const std::optional<std::string> &tokenInAddress,
                                        std::string_view cookieHeader) const {
  if (!isOurs(host))
    return Verdict::ForeignHost;
  if (tokenInAddress && token_.matches(*tokenInAddress))
    return Verdict::PassWithToken;
  const auto cookie = ourCookie(cookieHeader);
  return cookie && token_.matches(*cookie) ? Verdict::Pass : Verdict::NoToken;
}

bool RequestGate::isOurs(std::string_view host) const {
  const std::string port = ":" + std::to_string(port_);
  if (host.size() <= port.size() || host.substr(host.size() - port.size()) != port)
    return false;
  const std::string_view name = host.substr(0, host.size() - port.size());
  if (name.size() > 2 && name.front() == '[' && name.back() == ']')
    return isAddress(AF_INET6, name.substr(1, name.size() - 2));
  return isLocalhost(name) || isAddress(AF_INET, name);
}

std::string RequestGate::cookie() const {
  return std::string(kCookieName) + "=" + token_.text() + "; Path=/; HttpOnly; SameSite=Strict";
}

} // namespace parlova
