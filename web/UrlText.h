// Text put into an address: a path segment or a query's value.
#pragma once

#include <string>
#include <string_view>

namespace parlova {

// Every byte but letters, digits and -._~ as %XX.
std::string percentEncoded(std::string_view text);

} // namespace parlova
