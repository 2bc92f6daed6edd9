// The chat library (keepChatPages): every processed chat as a page of its
// own under ~/Library/Parlova/Chats, one folder per person, with a page
// listing each person's chats by year and an index of the people, all made
// from chattemplate.html.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "platform/FileManager.h"

namespace parlova {

class ICLPChatLog;
struct ChatRecord;

class ChatLibrary {
public:
  // Whether the user asked for the library (keepChatPages).
  static bool wanted();
  // ~/Library/Parlova/Chats.
  static std::filesystem::path folder();
  // Where the chat's page goes, relative to folder(): the person's folder
  // (named as the picture archive names files, with a tag where the name
  // had to change) and the chat's start, "alice1979/2005-12-30 at
  // 10.00.12.html"; " #2" before ".html" for a second chat of that person
  // and second. A chat keeps the page it was given.
  static std::string pagePath(const ChatRecord &record);

  // Writes the chat's page: the HTML the mail carries, its attached files
  // pointing at their stored copies where the image archive has them.
  // False when there is no template or the page could not be written.
  static bool writeChatPage(const ICLPChatLog &log, const ChatRecord &record,
                            Durability durability = Durability::Now);
  // The page's body, as writeChatPage puts it in: made whole (a short
  // chat's), or `streamed`, made twice and handed out in pieces (a long
  // chat's, never held). Both give the same bytes.
  static void writePageBody(const ICLPChatLog &log, bool streamed, const PieceSink &piece);
  // The people's index and each person's list of chats, from the history.
  static void rebuildIndexPages();
};

} // namespace parlova
