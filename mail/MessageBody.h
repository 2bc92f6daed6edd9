// A text part's body: text held whole, or a source that makes the text
// afresh, a piece at a time, each time it is written. A chat of hundreds of
// thousands of messages gives bodies of a hundred megabytes; made from the
// chat as they are written, they reach a mailbox without ever being held
// whole, at the price of being made once for each pass over them.
#pragma once

#include <string>

#include "platform/GatheredWriter.h"

namespace parlova {

class MessageBody {
public:
  MessageBody() = default;
  // A body is text, and is given as text wherever it is small.
  MessageBody(std::string text) : text_(std::move(text)) {}
  // Whatever the source refers to must outlive every write.
  static MessageBody madeBy(PieceMaker source);

  void write(const PieceSink &piece) const;
  // The text in one string, made at its exact size.
  std::string whole() const;
  // The body holding its text, free of whatever its source referred to.
  MessageBody held() const { return source_ ? MessageBody(whole()) : *this; }

private:
  std::string text_;
  PieceMaker source_;
};

} // namespace parlova
