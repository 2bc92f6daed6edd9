// A message's text, typed by someone else, as HTML: every character shown
// as typed, addresses of a safe kind made links, and the words a search
// matched marked.
#pragma once

#include <string>
#include <string_view>

namespace parlova {

// What the index's highlighter puts around matched words: characters of
// the private use area, which no escaping touches and no chat holds.
inline constexpr std::string_view kMatchOpen = "\xEE\x80\x80";
inline constexpr std::string_view kMatchClose = "\xEE\x80\x81";

// http, https, ftp and mailto addresses and "www." become links that open
// in a tab of their own; any other scheme stays text.
std::string messageHtml(std::string_view text);

// Only http, https, ftp and mailto, in any case.
bool isSafeLink(std::string_view address);

} // namespace parlova
