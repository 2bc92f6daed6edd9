// A chat as a page, from the index of its messages: a window around the
// message asked for, and the windows before and after it as the reader
// scrolls, so that a chat of any length opens at once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "web/WebExchange.h"

namespace parlova {

class PictureIndex;
class ReadConnections;

class ChatPage {
public:
  // Messages in one window, on each side of the one asked for.
  static constexpr int64_t kReach = 100;

  ChatPage(ReadConnections &history, PictureIndex &pictures) : history_(history), pictures_(pictures) {}

  // /chat/ID[?at=ROW]: the page, at the message in row ROW of the index.
  WebAnswer page(const WebRequest &request) const;
  // /chat/ID/rows?before=ROW or ?after=ROW: the messages next to those shown.
  WebAnswer rows(const WebRequest &request) const;

private:
  ReadConnections &history_;
  PictureIndex &pictures_;
};

} // namespace parlova
