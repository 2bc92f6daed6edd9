// A list of chats on a page: when, with whom, how long, and how it began;
// each a link to the chat.
#pragma once

#include <string>
#include <vector>

#include "history/PeopleAndChats.h"

namespace parlova {

std::string chatListHtml(const std::vector<HistoryChat> &chats);

} // namespace parlova
