#include "foundation/HtmlText.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace parlova {

namespace {

template <class Char> std::basic_string<Char> escaped(std::basic_string_view<Char> text) {
  std::basic_string<Char> out;
  out.reserve(text.size());
  for (const Char c : text) {
    const char *reference = c == '&'   ? "&amp;"
                            : c == '<' ? "&lt;"
                            : c == '>' ? "&gt;"
                            : c == '"' ? "&quot;"
                            : c == '\'' ? "&#39;"
                                        : nullptr;
    if (!reference) {
      out += c;
      continue;
    }
    for (const char *at = reference; *at; ++at)
      out += static_cast<Char>(*at);
  }
  return out;
}

} // namespace

std::string escapedForHtml(std::string_view text) { return escaped(text); }

std::u16string escapedForHtml(std::u16string_view text) { return escaped(text); }

bool hasLinkableScheme(std::string_view address) {
  constexpr std::array<std::string_view, 6> kSchemes = {"http", "https", "ftp", "mailto", "aim", "file"};
  const size_t colon = address.find(':');
  if (colon == std::string_view::npos)
    return false;
  std::string scheme(address.substr(0, colon));
  for (char &c : scheme)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return std::find(kSchemes.begin(), kSchemes.end(), scheme) != kSchemes.end();
}

} // namespace parlova
