#include "foundation/JsonText.h"

#include <cstdio>

#include "foundation/Unicode.h"

namespace parlova {

std::string jsonString(std::string_view text) {
  const std::string valid = utf16ToUtf8(utf8ToUtf16(std::string(text)));
  std::string out = "\"";
  for (const char c : valid) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

} // namespace parlova
