// A message as the mail framework frames it (its headers, the boundaries and
// each part's headers) with the two text bodies put in where the framework
// left marks, each encoded as the framework encodes it. Its bytes are made
// as they are written, so that a message of a hundred megabytes is never
// held whole on its way into a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "mail/MessageBody.h"
#include "mail/TextPartBody.h"

namespace parlova {

class FramedMessage {
public:
  // Where a body goes: the mark's place in the framing, and its length with
  // the line feed after it.
  struct Slot {
    size_t at = 0;
    size_t length = 0;
    TextPartBody::Encoding encoding = TextPartBody::Encoding::AsIs;
  };

  FramedMessage() = default;
  // A body made from its source is made again each time the message is
  // written: whatever it refers to must outlive the message.
  FramedMessage(std::string framing, Slot plainSlot, MessageBody plain, Slot htmlSlot, MessageBody html);

  size_t size() const;
  void write(const std::function<void(std::string_view)> &piece) const;
  std::vector<uint8_t> bytes() const;

private:
  std::string framing_;
  Slot plainSlot_;
  MessageBody plain_;
  Slot htmlSlot_;
  MessageBody html_;
};

} // namespace parlova
