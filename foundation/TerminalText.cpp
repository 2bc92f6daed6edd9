#include "foundation/TerminalText.h"

#include "foundation/Unicode.h"

namespace parlova {

std::string terminalLine(std::string_view text) {
  const std::string valid = utf16ToUtf8(utf8ToUtf16(std::string(text)));
  std::string out;
  out.reserve(valid.size());
  for (size_t at = 0; at < valid.size(); ++at) {
    const auto byte = static_cast<unsigned char>(valid[at]);
    // U+0080 to U+009F are the two bytes C2 80 to C2 9F.
    const bool c1 = byte == 0xC2 && at + 1 < valid.size() && static_cast<unsigned char>(valid[at + 1]) < 0xA0;
    if (byte == '\n' || byte == '\r' || byte == '\t') {
      out += ' ';
    } else if (byte < 0x20 || byte == 0x7F) {
      out += '^';
      out += static_cast<char>(byte ^ 0x40);
    } else if (c1) {
      out += "^[";
      out += static_cast<char>(static_cast<unsigned char>(valid[++at]) - 0x40);
    } else {
      out += valid[at];
    }
  }
  return out;
}

} // namespace parlova
