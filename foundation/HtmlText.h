// Text typed by someone else, made to show as typed in HTML, and the link
// addresses that may become links.
#pragma once

#include <string>
#include <string_view>

namespace parlova {

// &, <, >, " and ' as character references: fit for an element's content
// and for a quoted attribute.
std::string escapedForHtml(std::string_view text);
std::u16string escapedForHtml(std::u16string_view text);

// http, https, ftp, mailto, aim and file, in any case: the schemes that
// open a page, a mail or a chat rather than run something.
bool hasLinkableScheme(std::string_view address);

} // namespace parlova
