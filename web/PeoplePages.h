// Everybody talked with, one person where a contact card lists several of
// their accounts, and a page for each: their chats over the years.
#pragma once

#include "web/WebExchange.h"

namespace parlova {

class AddressBook;
class ReadConnections;

class PeoplePages {
public:
  PeoplePages(ReadConnections &history, const AddressBook &contacts) : history_(history), contacts_(contacts) {}

  // /people
  WebAnswer everybody() const;
  // /person/ACCOUNT[?year=YYYY]
  WebAnswer person(const WebRequest &request) const;

private:
  ReadConnections &history_;
  const AddressBook &contacts_;
};

} // namespace parlova
