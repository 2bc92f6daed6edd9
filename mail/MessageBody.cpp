#include "mail/MessageBody.h"

namespace parlova {

MessageBody MessageBody::madeBy(PieceMaker source) {
  MessageBody body;
  body.source_ = std::move(source);
  return body;
}

void MessageBody::write(const PieceSink &piece) const {
  if (source_)
    source_(piece);
  else if (!text_.empty())
    piece(text_);
}

std::string MessageBody::whole() const {
  if (!source_)
    return text_;
  size_t size = 0;
  source_([&size](std::string_view piece) { size += piece.size(); });
  std::string text;
  text.reserve(size);
  source_([&text](std::string_view piece) { text += piece; });
  return text;
}

} // namespace parlova
