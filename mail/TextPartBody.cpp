#include "mail/TextPartBody.h"

#include <optional>
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

// Quoted-printable as the framework writes it. A blank is escaped only
// before a line feed, so one at the end of a piece waits for the next.
class QuotedPrintableWriter {
public:
  explicit QuotedPrintableWriter(const std::function<void(std::string_view)> &piece) : piece_(piece) {
    out_.reserve(kPieceSize + 8);
  }
  void add(std::string_view text) {
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (blank_) {
        put(*blank_, byte == '\n');
        blank_.reset();
      }
      if (byte == ' ' || byte == '\t')
        blank_ = byte;
      else
        put(byte, false);
    }
  }
  void finish() {
    if (blank_)
      put(*blank_, false);
    if (!out_.empty())
      last_ = out_.back();
    if (last_ != '\n')
      out_ += '\n';
    if (!out_.empty())
      piece_(out_);
  }

private:
  void put(unsigned char byte, bool beforeLineEnd) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    if (line_ >= kQuotedLineLength) {
      out_ += "=\n";
      line_ = 0;
    }
    if (passesAsIs(byte) && !beforeLineEnd) {
      out_ += static_cast<char>(byte);
      line_ = byte == '\n' ? 0 : line_ + 1;
    } else {
      out_ += '=';
      out_ += kHex[byte >> 4];
      out_ += kHex[byte & 15];
      line_ += 3;
    }
    if (out_.size() >= kPieceSize) {
      last_ = out_.back();
      piece_(out_);
      out_.clear();
    }
  }
  const std::function<void(std::string_view)> &piece_;
  std::string out_;
  size_t line_ = 0;
  // An empty body ends as if after a line feed: nothing is added to it.
  char last_ = '\n';
  std::optional<unsigned char> blank_;
};

} // namespace

TextPartBody::Encoding TextPartBody::encodingFor(const MessageBody &body, bool forMailbox) {
  size_t line = 0;
  bool tooLong = false;
  bool notAscii = false;
  body.write([&](std::string_view piece) {
    for (const char c : piece) {
      if (tooLong)
        return;
      line = c == '\n' ? 0 : line + 1;
      tooLong = line > kLongestSmtpLine;
      notAscii = notAscii || static_cast<unsigned char>(c) >= 0x80;
    }
  });
  return tooLong || (forMailbox && notAscii) ? Encoding::QuotedPrintable : Encoding::AsIs;
}

void TextPartBody::write(const std::function<void(std::string_view)> &piece) const {
  // The framework writes every line of a body followed by a line feed, the
  // last one too, and nothing for an empty body.
  if (encoding_ == Encoding::AsIs) {
    char last = '\n';
    body_.write([&](std::string_view text) {
      for (size_t at = 0; at < text.size(); at += kPieceSize)
        piece(text.substr(at, kPieceSize));
      if (!text.empty())
        last = text.back();
    });
    if (last != '\n')
      piece("\n");
    return;
  }
  QuotedPrintableWriter quoted(piece);
  body_.write([&quoted](std::string_view text) { quoted.add(text); });
  quoted.finish();
}

} // namespace parlova
