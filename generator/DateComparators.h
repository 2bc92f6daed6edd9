// The orderings the gathered pages sort by.
#pragma once

#include <compare>
#include <optional>
#include <string_view>

#include "foundation/PropertyListValue.h"

namespace parlova {

// Dates, earliest first; no date counts as earliest.
std::weak_ordering compareOptionalDates(const std::optional<Date> &a, const std::optional<Date> &b);
// Link entries by their "date", earliest first; an entry without a date
// counts as earliest.
std::weak_ordering compareLinkDictionaries(const PlistValue &first, const PlistValue &second,
                                           void *context = nullptr);
// Image entries by their "date", newest first.
std::weak_ordering compareImageDictionaries(const PlistValue &first, const PlistValue &second,
                                            void *context = nullptr);

// Month titles ("March 2005") read back as dates, earliest first; a title
// that does not read back counts as earliest.
std::weak_ordering compareLinkDateString(std::string_view receiver, std::string_view other);
std::weak_ordering compareImageDateString(std::string_view receiver, std::string_view other);

} // namespace parlova
