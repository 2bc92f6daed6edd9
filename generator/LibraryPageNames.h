// Which chat each page of the chat library belongs to, so that two chats
// never share one: a chat keeps the page it was given, and a second chat
// of one person that began in the same second gets the first free name of
// "… #2.html", "… #2 #3.html", … as a second transcript of the same name
// does in the processed folder.
#pragma once

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace parlova {

class LibraryPageNames {
public:
  // The pages given before, each with its chat's key.
  explicit LibraryPageNames(const std::vector<std::pair<std::string, std::string>> &given);

  // The page for the chat `key`, whose own name would be `page`; given to
  // it from then on.
  std::string claim(const std::string &page, const std::string &key);

private:
  std::unordered_map<std::string, std::string> keyOfPage_;
  std::unordered_map<std::string, std::string> pageOfKey_;
};

} // namespace parlova
