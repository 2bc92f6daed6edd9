// The secret that the printed address carries: whoever opens it may read
// every chat, so it is long, random, and compared in constant time.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace parlova {

class AccessToken {
public:
  // 32 bytes from the kernel's random source, as hex; nothing when the
  // kernel gives none.
  static std::optional<AccessToken> generate();

  const std::string &text() const { return text_; }
  bool matches(std::string_view offered) const;

private:
  explicit AccessToken(std::string text) : text_(std::move(text)) {}
  std::string text_;
};

} // namespace parlova
