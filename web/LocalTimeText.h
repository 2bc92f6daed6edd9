// An instant as the user's clock showed it, for the pages.
#pragma once

#include <optional>
#include <string>

namespace parlova {

// strftime's `format` in local time; "?" for no instant.
std::string localTimeText(std::optional<double> seconds, const char *format);

} // namespace parlova
