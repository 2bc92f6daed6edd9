#include "web/AccessToken.h"

#include <cerrno>
#include <sys/random.h>

namespace parlova {

std::optional<AccessToken> AccessToken::generate() {
  unsigned char bytes[32];
  size_t filled = 0;
  while (filled < sizeof bytes) {
    const ssize_t got = getrandom(bytes + filled, sizeof bytes - filled, 0);
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0)
      return std::nullopt;
    filled += static_cast<size_t>(got);
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += kHex[byte >> 4];
    text += kHex[byte & 15];
  }
  return AccessToken(std::move(text));
}

bool AccessToken::matches(std::string_view offered) const {
  if (offered.size() != text_.size())
    return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < text_.size(); ++i)
    difference |= static_cast<unsigned char>(text_[i] ^ offered[i]);
  return difference == 0;
}

} // namespace parlova
