#include "mail/TextPartBody.h"

#include <algorithm>
#include <string>

namespace parlova {

namespace {

constexpr size_t kLongestSmtpLine = 998;
// Where the framework breaks a quoted-printable line: once a line holds this
// many characters, before the next one, so an escape may run up to three past.
constexpr size_t kQuotedLineLength = 72;
constexpr size_t kPieceSize = 64 * 1024;

bool passesAsIs(unsigned char byte) {
  return byte == '\n' || byte == ' ' || byte == '\t' || (byte >= 33 && byte <= 60) || (byte >= 62 && byte <= 126);
}

} // namespace

TextPartBody::Encoding TextPartBody::encodingFor(std::string_view text, bool forMailbox) {
  size_t line = 0;
  for (const char c : text) {
    line = c == '\n' ? 0 : line + 1;
    if (line > kLongestSmtpLine)
      return Encoding::QuotedPrintable;
  }
  if (forMailbox && std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }))
    return Encoding::QuotedPrintable;
  return Encoding::AsIs;
}

void TextPartBody::write(const std::function<void(std::string_view)> &piece) const {
  // The framework writes every line of a body followed by a line feed, the
  // last one too, and nothing for an empty body.
  if (encoding_ == Encoding::AsIs) {
    for (size_t at = 0; at < text_.size(); at += kPieceSize)
      piece(text_.substr(at, kPieceSize));
    if (!text_.empty() && text_.back() != '\n')
      piece("\n");
    return;
  }
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(kPieceSize + 8);
  size_t line = 0;
  char last = '\n';
  for (size_t i = 0; i < text_.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text_[i]);
    if (line >= kQuotedLineLength) {
      out += "=\n";
      line = 0;
    }
    const bool blankBeforeLineEnd = (byte == ' ' || byte == '\t') && i + 1 < text_.size() && text_[i + 1] == '\n';
    if (passesAsIs(byte) && !blankBeforeLineEnd) {
      out += static_cast<char>(byte);
      line = byte == '\n' ? 0 : line + 1;
    } else {
      out += '=';
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
      line += 3;
    }
    if (out.size() >= kPieceSize) {
      last = out.back();
      piece(out);
      out.clear();
    }
  }
  if (!out.empty())
    last = out.back();
  if (last != '\n')
    out += '\n';
  if (!out.empty())
    piece(out);
}

} // namespace parlova
