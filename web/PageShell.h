// Every page's frame: the search box with its filters at the top, the
// ways to browse, our one style sheet and our one script.
#pragma once

#include <string>

namespace parlova {

// What the search box and its filters hold, as typed.
struct SearchForm {
  std::string query;
  std::string with;
  std::string since; // YYYY-MM-DD
  std::string until;
  bool links = false;
  bool pictures = false;
  bool byDate = false;
};

class PageShell {
public:
  // `title` as text, `body` as HTML.
  static std::string page(const std::string &title, const SearchForm &form, const std::string &body);
};

} // namespace parlova
