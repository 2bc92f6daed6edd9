#include "web/MessageHtml.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "foundation/HtmlText.h"
#include "foundation/Unicode.h"

namespace parlova {

namespace {

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(), [](char p, char t) {
           return p == std::tolower(static_cast<unsigned char>(t));
         });
}

constexpr std::array kSafeSchemes{std::string_view("http://"), std::string_view("https://"),
                                  std::string_view("ftp://"), std::string_view("mailto:")};

// Where an address that starts at `at` ends: at white space or a mark,
// without the punctuation that ends the sentence around it.
size_t addressEnd(std::string_view text, size_t at) {
  size_t end = at;
  while (end < text.size() && !std::isspace(static_cast<unsigned char>(text[end])) && text[end] != '<' &&
         text[end] != '>' && text[end] != '"' && text.substr(end, 3) != kMatchOpen && text.substr(end, 3) != kMatchClose)
    ++end;
  while (end > at && std::string_view(".,;:!?)'").find(text[end - 1]) != std::string_view::npos)
    --end;
  return end;
}

// Where an address may begin: at the start or after a space or an opening
// mark of punctuation.
bool mayBegin(std::string_view text, size_t at) {
  return at == 0 || std::isspace(static_cast<unsigned char>(text[at - 1])) || text[at - 1] == '(' ||
         (at >= 3 && text.substr(at - 3, 3) == kMatchOpen);
}

std::string escapedWithMarks(std::string_view text) {
  std::string html = escapedForHtml(text);
  for (const auto &[mark, tag] : {std::pair{kMatchOpen, "<mark>"}, std::pair{kMatchClose, "</mark>"}})
    for (size_t at = html.find(mark); at != std::string::npos; at = html.find(mark, at))
      html.replace(at, mark.size(), tag);
  return html;
}

} // namespace

bool isSafeLink(std::string_view address) {
  return std::any_of(kSafeSchemes.begin(), kSafeSchemes.end(),
                     [&](std::string_view scheme) { return startsWithNoCase(address, scheme) && address.size() > scheme.size(); });
}

std::string messageHtml(std::string_view said) {
  // Whatever is not UTF-8 shows as U+FFFD rather than as bytes a browser
  // would guess at.
  const std::string valid = utf16ToUtf8(utf8ToUtf16(said));
  const std::string_view text = valid;
  std::string html;
  size_t shown = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    if (!mayBegin(text, at))
      continue;
    const std::string_view rest = text.substr(at);
    const bool web = startsWithNoCase(rest, "www.");
    if (!web && !isSafeLink(rest))
      continue;
    const size_t end = addressEnd(text, at);
    const std::string_view address = text.substr(at, end - at);
    if (address.size() <= (web ? 4 : 8) || (!web && !isSafeLink(address)))
      continue;
    html += escapedWithMarks(text.substr(shown, at - shown));
    const std::string target = web ? "http://" + std::string(address) : std::string(address);
    html += "<a href=\"" + escapedForHtml(target) + "\" rel=\"noopener noreferrer\" target=\"_blank\">" +
            escapedForHtml(address) + "</a>";
    shown = end;
    at = end - 1;
  }
  html += escapedWithMarks(text.substr(shown));
  return html;
}

} // namespace parlova
