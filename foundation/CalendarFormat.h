// Dates rendered and read back with calendar formats, in the local time zone
// and with English month and day names whatever the locale says:
// "%B" full month, "%a" short weekday, "%e" day without padding, "%d" day
// with a zero, "%m" month number, "%Y" year, "%H" and "%I" hours, "%M"
// minutes, "%S" seconds, "%p" AM/PM, "%z" zone offset, "%%" a percent sign.
// A date beyond what the calendar can hold prints "(invalid date)".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Date.h"

namespace parlova {

std::string formatCalendarDate(Date date, std::string_view format);

// A date's default text form, in the local time zone: "2005-03-14 15:22:07
// -0800".
std::string describeDate(Date date);

// The month of the year, 1 to 12, in the local time zone.
int localMonthOfYear(Date date);

// Reads a "%B %Y" month title ("March 2005") back into the first moment of
// that month; nothing for any other text.
std::optional<Date> parseMonthTitle(std::string_view title);

// Whole days from `start` to `end` on the local wall clock: positive when
// `end` is later, and a day counts only once it has fully passed.
int32_t wholeDaysBetween(Date start, Date end);

} // namespace parlova
