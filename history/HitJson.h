// A search hit as one JSON object, the same for every reader of the index:
// the search tool's lines and the web view's answers.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "history/MessageSearch.h"

namespace parlova {

// An instant as ISO 8601 in local time with its offset
// ("2005-03-01T21:14:05+01:00"); empty for none.
std::string isoLocalTime(std::optional<double> seconds);

// {"transcript", "with", "account", "speaker", "time", "text", "snippet",
// "page"} and then `more`, keys with their values and a comma before each.
// `page`: the chat's page in the library, when it is there.
std::string hitJson(const SearchHit &hit, const std::optional<std::string> &page, std::string_view more = {});

} // namespace parlova
