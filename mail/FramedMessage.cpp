#include "mail/FramedMessage.h"

namespace parlova {

FramedMessage::FramedMessage(std::string framing, Slot plainSlot, MessageBody plain, Slot htmlSlot,
                             MessageBody html)
    : framing_(std::move(framing)), plainSlot_(plainSlot), plain_(std::move(plain)), htmlSlot_(htmlSlot),
      html_(std::move(html)) {}

void FramedMessage::write(const std::function<void(std::string_view)> &piece) const {
  const std::string_view framing = framing_;
  const TextPartBody plain(plain_, plainSlot_.encoding);
  const TextPartBody html(html_, htmlSlot_.encoding);
  piece(framing.substr(0, plainSlot_.at));
  plain.write(piece);
  const size_t between = plainSlot_.at + plainSlot_.length;
  piece(framing.substr(between, htmlSlot_.at - between));
  html.write(piece);
  piece(framing.substr(htmlSlot_.at + htmlSlot_.length));
}

size_t FramedMessage::size() const {
  size_t total = 0;
  write([&total](std::string_view piece) { total += piece.size(); });
  return total;
}

std::vector<uint8_t> FramedMessage::bytes() const {
  std::vector<uint8_t> bytes;
  bytes.reserve(size());
  write([&bytes](std::string_view piece) { bytes.insert(bytes.end(), piece.begin(), piece.end()); });
  return bytes;
}

} // namespace parlova
