// Text as a JSON string, for whatever reads our output or our queries.
#pragma once

#include <string>
#include <string_view>

namespace parlova {

// Quoted, with every control character escaped and whatever is not UTF-8
// made U+FFFD: the text was typed by others.
std::string jsonString(std::string_view text);

} // namespace parlova
