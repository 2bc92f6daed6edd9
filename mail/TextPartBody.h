// A text part's body as the mail framework writes it into a message, made
// here in one pass and in pieces, so that a message of tens of megabytes is
// not copied over and over on its way out. Its bytes are the framework's own,
// so that a message stored into a mailbox is the one SMTP sends.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

#include "mail/MessageBody.h"

namespace parlova {

class TextPartBody {
public:
  enum class Encoding { AsIs, QuotedPrintable };
  // SMTP takes lines of at most 998 bytes and a server refuses the whole
  // message for one longer (a long link, a long name), so such a body goes
  // quoted-printable, which breaks its lines. A mailbox's readers go by the
  // labels alone, so there a body that is not plain ASCII goes
  // quoted-printable too.
  static Encoding encodingFor(const MessageBody &body, bool forMailbox);

  // `body` must outlive this.
  TextPartBody(const MessageBody &body, Encoding encoding) : body_(body), encoding_(encoding) {}
  // The body, lines ending in a line feed, handed out a piece at a time.
  void write(const std::function<void(std::string_view)> &piece) const;

private:
  const MessageBody &body_;
  Encoding encoding_;
};

} // namespace parlova
