// Conversions between the UTF-8 the program stores and the UTF-16 units that
// attributed-string ranges count in.
#pragma once

#include <string>
#include <string_view>

namespace parlova {

// Malformed input becomes U+FFFD; conversion never fails.
std::u16string utf8ToUtf16(std::string_view utf8);
std::string utf16ToUtf8(std::u16string_view utf16);

} // namespace parlova
