// Who may read: a request that names this server by its port and an IP
// address or "localhost" (a page of some other site that rebinds its name
// to our address still names that site), and carries the token, in the
// address or in the cookie that opening the address set.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "web/AccessToken.h"

namespace parlova {

class RequestGate {
public:
  RequestGate(AccessToken token, int port) : token_(std::move(token)), port_(port) {}

  enum class Verdict {
    Pass,
    PassWithToken, // the token came in the address: set the cookie, and take it out of the address
    ForeignHost,
    NoToken,
  };
  Verdict judge(std::string_view host, const std::optional<std::string> &tokenInAddress,
                std::string_view cookieHeader) const;

  // The Set-Cookie value that lets the browser in from then on.
  std::string cookie() const;
  const AccessToken &token() const { return token_; }

private:
  bool isOurs(std::string_view host) const;

  AccessToken token_;
  int port_;
};

} // namespace parlova
