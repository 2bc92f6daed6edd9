// Text typed by someone else, made safe to print on a terminal.
#pragma once

#include <string>
#include <string_view>

namespace parlova {

// `text` on one line with nothing a terminal acts on: line breaks and tabs
// as blanks, every other control character in caret notation ("^[" for
// ESC, "^?" for DEL, the C1 controls as a 7-bit terminal would have got
// them: U+009B, CSI, as "^[["), and what is not UTF-8 as U+FFFD. Text
// without control characters is left as it is.
std::string terminalLine(std::string_view text);

} // namespace parlova
