// The decade by month: how many chats each month holds, and a month's
// chats.
#pragma once

#include "web/WebExchange.h"

namespace parlova {

class ReadConnections;

class CalendarPage {
public:
  explicit CalendarPage(ReadConnections &history) : history_(history) {}

  // /calendar
  WebAnswer calendar() const;
  // /month/YYYY-MM
  WebAnswer month(const WebRequest &request) const;

private:
  ReadConnections &history_;
};

} // namespace parlova
