#include "web/ChatListHtml.h"

#include "foundation/HtmlText.h"
#include "web/LocalTimeText.h"

namespace parlova {

std::string chatListHtml(const std::vector<HistoryChat> &chats) {
  if (chats.empty())
    return "<p class=\"none\">No chats.</p>";
  std::string html = "<ol class=\"chats\">\n";
  for (const HistoryChat &chat : chats) {
    html += "<li><a href=\"/chat/" + std::to_string(chat.id) + "\"><time>" +
            localTimeText(chat.time, "%Y-%m-%d %H:%M") + "</time> <span class=\"who\">" +
            escapedForHtml(chat.name) + "</span></a> <span class=\"size\">" + std::to_string(chat.messages) +
            (chat.messages == 1 ? " message" : " messages") + "</span> <span class=\"first\">" +
            escapedForHtml(chat.firstLine) + "</span></li>\n";
  }
  return html + "</ol>";
}

} // namespace parlova
